#include "backend/MacVpnBackend.h"

#include <QDebug>
#include <QJsonArray>

#include <cmath>
#include <limits>

QString MacVpnBackend::endpointHost(const ParsedVpnConfig &config) const
{
    if (!config.hostName.isEmpty())
        return config.hostName;
    return config.lastConfig.value(QLatin1String("hostName")).toString();
}

int MacVpnBackend::endpointPort(const ParsedVpnConfig &config) const
{
    const QJsonValue port = config.lastConfig.value(QLatin1String("port"));
    if (port.isDouble()) {
        const double number = port.toDouble();
        const bool whole = std::floor(number) == number;
        const bool fits =
            number >= std::numeric_limits<int>::min() && number <= std::numeric_limits<int>::max();
        return whole && fits ? static_cast<int>(number) : 0;
    }
    bool ok = false;
    const int value = port.toString().toInt(&ok, 10);
    return ok ? value : 0;
}

// An IPv6 address needs brackets to be told from the port.
QString MacVpnBackend::endpointOf(const ParsedVpnConfig &config) const
{
    const QString host = endpointHost(config);
    const QString bracketed = routeFamily(host) == QLatin1String("inet6")
                                  ? QLatin1Char('[') + host + QLatin1Char(']')
                                  : host;
    return bracketed + QLatin1Char(':') + QString::number(endpointPort(config));
}

QString MacVpnBackend::clientIpv4(const ParsedVpnConfig &config) const
{
    const QString address = config.lastConfig.value(QLatin1String("client_ip")).toString();
    const qsizetype slash = address.indexOf(QLatin1Char('/'));
    return slash < 0 ? address : address.left(slash);
}

QStringList MacVpnBackend::allowedIps(const ParsedVpnConfig &config) const
{
    QStringList ranges;
    const QJsonArray array = config.lastConfig.value(QLatin1String("allowed_ips")).toArray();
    for (const QJsonValue &element : array) {
        const QString range = element.toString().trimmed();
        if (!range.isEmpty())
            ranges.append(range);
    }
    if (ranges.isEmpty())
        ranges = QStringList{QStringLiteral("0.0.0.0/0"), QStringLiteral("::/0")};
    qInfo() << "[MacVpnBackend] allowedIps" << ranges;
    return ranges;
}

QString MacVpnBackend::hexKey(const QString &key) const
{
    return QString::fromLatin1(QByteArray::fromBase64(key.toUtf8()).toHex());
}
