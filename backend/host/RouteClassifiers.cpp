#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"
#include "config/NetworkText.h"

bool MacVpnBackend::isIpv4Route(const QString &route) const
{
    return NetworkText::isIpv4Route(route);
}

bool MacVpnBackend::isIpv6Route(const QString &route) const
{
    return NetworkText::isIpv6Route(route);
}

QString MacVpnBackend::routeFamily(const QString &route) const
{
    return isIpv6Route(route) ? QStringLiteral("inet6") : QStringLiteral("inet");
}

QString MacVpnBackend::routeType(const QString &route) const
{
    return route.contains(QLatin1Char('/')) ? QStringLiteral("-net") : QStringLiteral("-host");
}

QString MacVpnBackend::defaultGateway() const
{
    return defaultGatewayOf(false);
}

QString MacVpnBackend::defaultGatewayOf(bool ipv6, QString *interfaceName) const
{
    QString output;
    QString failure;
    QStringList arguments = {QStringLiteral("-n"), QStringLiteral("get")};
    if (ipv6)
        arguments << QStringLiteral("-inet6");
    arguments << QStringLiteral("default");
    if (!runRoute(arguments, &failure, &output))
        return QString();
    QString gateway;
    const QStringList lines = output.split(QLatin1Char('\n'));
    for (const QString &rawLine : lines) {
        const QString line = rawLine.trimmed();
        const QString value = line.mid(line.indexOf(QLatin1Char(':')) + 1).trimmed();
        if (line.startsWith(QLatin1String("gateway:")) && gateway.isEmpty())
            gateway = value;
        else if (line.startsWith(QLatin1String("interface:")) && interfaceName)
            *interfaceName = value;
    }
    return gateway;
}
