#include "backend/MacVpnBackend.h"

#include <QDebug>
#include <QHostAddress>

MacVpnBackend::SplitTunnelSettings MacVpnBackend::splitTunnelFromPeer(const QVariantMap &peer) const
{
    const QVariantMap settings = peer.value(QStringLiteral("splitTunnel")).toMap();
    SplitTunnelSettings split;
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

QStringList MacVpnBackend::resolvedSplitTunnelRoutes(const QVariantMap &entry) const
{
    const QString value = entry.value(QStringLiteral("value")).toString().trimmed();
    if (isIpv4Route(value) || isIpv6Route(value))
        return {value};

    QStringList routes;
    const QList<QHostAddress> addresses = host.lookupHost(value).addresses();
    for (const QHostAddress &address : addresses) {
        const auto protocol = address.protocol();
        if (protocol == QAbstractSocket::IPv4Protocol || protocol == QAbstractSocket::IPv6Protocol)
            routes.append(address.toString());
    }
    routes.removeDuplicates();
    if (!routes.isEmpty())
        return routes;

    const QString fallback = entry.value(QStringLiteral("ip")).toString().trimmed();
    if (isIpv4Route(fallback) || isIpv6Route(fallback))
        return {fallback};

    qWarning() << "[MacVpnBackend] split tunnel host not resolved" << value;
    return {};
}

QStringList MacVpnBackend::splitTunnelRoutes() const
{
    QStringList routes;
    for (const QVariant &entry : splitTunnel.entries)
        routes += resolvedSplitTunnelRoutes(entry.toMap());
    routes.removeDuplicates();
    if (splitTunnel.mode != 2)
        return routes;

    // Exclusions go to the IPv4 default gateway, so only IPv4 can be excluded.
    QStringList ipv4;
    for (const QString &route : std::as_const(routes)) {
        if (isIpv4Route(route))
            ipv4.append(route);
    }
    return ipv4;
}
