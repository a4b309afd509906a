#include "backend/MacVpnBackend.h"
#include "backend/host/NameResolver.h"
#include "config/NetworkText.h"

#include <QDebug>
#include <QHostAddress>

namespace {

// All names of a connect together: a resolver that never answers costs this
// much, once.
constexpr int NameLookupDeadlineMs = 5000;

} // namespace

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

// An exclusion leaves outside the tunnel: the addresses of its name are
// filtered as the network's resolver gave them (see BypassFilter).
QStringList MacVpnBackend::resolvedSplitTunnelRoutes(const QVariantMap &entry) const
{
    const QString value = entry.value(QStringLiteral("value")).toString().trimmed();
    if (isIpv4Route(value) || isIpv6Route(value))
        return {value};

    QStringList routes;
    if (splitTunnel.mode == 2) {
        routes = addressesAroundTunnel(value);
    } else {
        for (const QHostAddress &address : lookedUp(value).addresses()) {
            const auto protocol = address.protocol();
            if (protocol == QAbstractSocket::IPv4Protocol ||
                protocol == QAbstractSocket::IPv6Protocol)
                routes.append(address.toString());
        }
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

void MacVpnBackend::resolveNames(const QString &endpoint)
{
    QStringList names = {controlPlaneHost()};
    // Under a block no look-up gets out: the endpoint goes by the address it
    // had last time.
    if (!NetworkText::isAddress(endpoint) &&
        !(firewall.isEngaged() && !recordedEndpoint(endpoint).isEmpty()))
        names.append(endpoint);
    if (splitTunnel.enabled && (splitTunnel.mode == 1 || splitTunnel.mode == 2)) {
        for (const QVariant &entry : std::as_const(splitTunnel.entries)) {
            const QString value = entry.toMap().value(QStringLiteral("value")).toString().trimmed();
            if (!isIpv4Route(value) && !isIpv6Route(value))
                names.append(value);
        }
    }
    resolvedNames = NameResolver::resolve(names, host.lookupHost, NameLookupDeadlineMs,
                                          [this] { return connectCancelled; });
    for (auto it = resolvedNames.cbegin(); it != resolvedNames.cend(); ++it) {
        if (it->error() == QHostInfo::UnknownError)
            qWarning() << "[MacVpnBackend] name lookup timed out" << it.key();
    }
}

// The endpoint's name stands for one address, the same for the server
// route, the tunnel program, the journal and the firewall: the first of IPv4
// the resolver gave, else the first of IPv6, never one that leads nowhere.
QString MacVpnBackend::endpointAddress(const QString &endpoint) const
{
    if (NetworkText::isAddress(endpoint))
        return endpoint;
    if (firewall.isEngaged() && !recordedEndpoint(endpoint).isEmpty())
        return recordedEndpoint(endpoint);
    QString fallback;
    for (const QHostAddress &address : lookedUp(endpoint).addresses()) {
        if (address.isLoopback() || address.isMulticast() || address.isLinkLocal() ||
            address.isBroadcast() || address == QHostAddress::AnyIPv4 ||
            address == QHostAddress::AnyIPv6)
            continue;
        if (address.protocol() == QAbstractSocket::IPv4Protocol)
            return address.toString();
        if (fallback.isEmpty() && address.protocol() == QAbstractSocket::IPv6Protocol)
            fallback = address.toString();
    }
    return fallback;
}

// A connect has looked its names up already, under its deadline; a name
// it did not ask for is looked up now.
QHostInfo MacVpnBackend::lookedUp(const QString &name) const
{
    const auto found = resolvedNames.constFind(name);
    return found != resolvedNames.cend() ? *found : host.lookupHost(name);
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
