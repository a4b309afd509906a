#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"

#include <QHostAddress>

namespace {

bool isRouteOfProtocol(const QString &route, QAbstractSocket::NetworkLayerProtocol protocol,
                       int maxPrefix)
{
    const QString text = route.trimmed();
    if (text.isEmpty())
        return false;
    const int slash = text.indexOf(QLatin1Char('/'));
    if (slash >= 0) {
        bool ok = false;
        const int prefix = text.section(QLatin1Char('/'), 1, 1).toInt(&ok, 10);
        if (!ok || prefix < 0 || prefix > maxPrefix)
            return false;
    }
    const QString address = slash < 0 ? text : text.left(slash);
    return QHostAddress(address).protocol() == protocol;
}

} // namespace

bool MacVpnBackend::isIpv4Route(const QString &route) const
{
    return isRouteOfProtocol(route, QAbstractSocket::IPv4Protocol, 32);
}

bool MacVpnBackend::isIpv6Route(const QString &route) const
{
    return isRouteOfProtocol(route, QAbstractSocket::IPv6Protocol, 128);
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
    QString output;
    const QStringList arguments = {QStringLiteral("-n"), QStringLiteral("get"),
                                   QStringLiteral("default")};
    if (!runCommand(host.routeTool, arguments, &output, nullptr, CommandTimeoutMs))
        return QString();
    const QStringList lines = output.split(QLatin1Char('\n'));
    for (const QString &rawLine : lines) {
        const QString line = rawLine.trimmed();
        if (line.startsWith(QLatin1String("gateway:")))
            return line.mid(line.indexOf(QLatin1Char(':')) + 1).trimmed();
    }
    return QString();
}
