#include "backend/plan/PeerValues.h"

#include "config/NetworkText.h"

#include <QDebug>
#include <QJsonArray>

#include <cmath>
#include <limits>

namespace PeerValues {

QString endpointHost(const ParsedVpnConfig &config)
{
    if (!config.hostName.isEmpty())
        return config.hostName;
    return config.lastConfig.value(QLatin1String("hostName")).toString();
}

int endpointPort(const ParsedVpnConfig &config)
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
QString endpointOf(const ParsedVpnConfig &config)
{
    const QString host = endpointHost(config);
    const QString bracketed =
        NetworkText::isIpv6Route(host) ? QLatin1Char('[') + host + QLatin1Char(']') : host;
    return bracketed + QLatin1Char(':') + QString::number(endpointPort(config));
}

QString clientIpv4(const ParsedVpnConfig &config)
{
    const QString address = config.lastConfig.value(QLatin1String("client_ip")).toString();
    const qsizetype slash = address.indexOf(QLatin1Char('/'));
    return slash < 0 ? address : address.left(slash);
}

QStringList allowedIps(const ParsedVpnConfig &config)
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
    return ranges;
}

QString hexKey(const QString &key)
{
    return QString::fromLatin1(QByteArray::fromBase64(key.toUtf8()).toHex());
}

SplitTunnel splitTunnel(const QVariantMap &peer)
{
    const QVariantMap settings = peer.value(QStringLiteral("splitTunnel")).toMap();
    SplitTunnel split;
    split.enabled = settings.value(QStringLiteral("enabled")).toBool();
    bool ok = false;
    const int mode = settings.value(QStringLiteral("mode")).toInt(&ok);
    split.mode = ok ? mode : 0;
    split.entries = settings.value(QStringLiteral("entries")).toList();
    if (split.mode != 1 && split.mode != 2) {
        split.enabled = false;
        split.mode = 0;
    }
    return split;
}

KillSwitch killSwitch(const QVariantMap &peer)
{
    const QVariantMap settings = peer.value(QStringLiteral("killSwitch")).toMap();
    return {settings.value(QStringLiteral("enabled")).toBool(),
            settings.value(QStringLiteral("allowLan")).toBool()};
}

LeakProtection leakProtection(const QVariantMap &peer)
{
    LeakProtection protection;
    protection.enabled = peer.value(QStringLiteral("leakProtection"), true).toBool();
    if (const QVariant apple = peer.value(QStringLiteral("appleAroundTunnel")); apple.isValid())
        protection.appleAroundTunnel = apple.toBool();
    return protection;
}

} // namespace PeerValues
