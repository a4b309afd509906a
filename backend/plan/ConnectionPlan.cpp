#include "backend/plan/ConnectionPlan.h"

#include "backend/BackendConstants.h"
#include "backend/plan/BypassFilter.h"
#include "backend/plan/PrefixSet.h"
#include "config/NetworkText.h"

#include <QDebug>
#include <QRegularExpression>

namespace {

const char *const Ipv4Failure = QT_TRANSLATE_NOOP("MacVpnBackend", "Не удалось добавить IPv4 маршрут: %1");
const char *const Ipv6Failure = QT_TRANSLATE_NOOP("MacVpnBackend", "Не удалось добавить IPv6 маршрут: %1");

} // namespace

bool ConnectionPlan::Route::operator==(const Route &other) const
{
    return destination == other.destination && intoTunnel == other.intoTunnel &&
           QByteArray(failure) == QByteArray(other.failure);
}

ConnectionPlan ConnectionPlan::of(const ParsedVpnConfig &config,
                                  const PeerValues::SplitTunnel &split,
                                  const QString &controlPlane, const Lookup &lookup)
{
    ConnectionPlan plan;
    plan.server = PeerValues::endpointHost(config);
    plan.port = PeerValues::endpointPort(config);
    plan.endpoint = PeerValues::endpointOf(config);
    plan.address = PeerValues::clientIpv4(config);
    static const QRegularExpression visible(QStringLiteral("\\S"));
    for (const QString &server : {config.dns1, config.dns2}) {
        if (server.contains(visible))
            plan.dnsServers.append(server);
        if (NetworkText::isAddress(server.trimmed()))
            plan.tunnelDns.append(server.trimmed());
    }
    for (const QString &own :
         {config.dns1, config.dns2, plan.address, QString(DefaultIpv6Address)}) {
        if (NetworkText::isAddress(own.trimmed()))
            plan.tunnelOwn.append(QHostAddress(own.trimmed()));
    }
    for (const QString &address : aroundTunnel(controlPlane, lookup, plan.tunnelOwn)) {
        if (NetworkText::isIpv4Route(address))
            plan.bypass.append(address);
    }
    const QStringList selected = PrefixSet::merged(
        split.enabled ? splitRoutes(split, lookup, plan.tunnelOwn) : QStringList());
    if (split.enabled)
        plan.split = {int(split.entries.size()), int(selected.size())};
    if (split.onlySelected()) {
        plan.dnsForAll = false;
        for (const QString &route : selected)
            plan.routes.append({route, true,
                                QT_TRANSLATE_NOOP("MacVpnBackend",
                                                  "Не удалось добавить маршрут раздельного "
                                                  "туннелирования: %1")});
        return plan;
    }

    // Full tunnelling uses two half routes per family, which win over the
    // default route by being more specific without replacing it. Every other
    // range goes by its own family, whatever character it begins with.
    const QStringList allowed = PrefixSet::merged(PeerValues::allowedIps(config));
    const bool allIpv4 = allowed.contains(QLatin1String("0.0.0.0/0"));
    const bool allIpv6 = allowed.contains(QLatin1String("::/0"));
    if (allIpv4) {
        for (const char *half : {"0.0.0.0/1", "128.0.0.0/1"})
            plan.routes.append({QLatin1String(half), true, Ipv4Failure});
    }
    for (const QString &range : allowed) {
        if (NetworkText::isIpv4Route(range) && !allIpv4)
            plan.routes.append({range, true, Ipv4Failure});
        else if (NetworkText::isIpv6Route(range) && !allIpv6)
            plan.routes.append({range, true, Ipv6Failure});
    }
    // A failed IPv6 half does not stop the connect.
    if (allIpv6) {
        for (const char *half : {"::/1", "8000::/1"})
            plan.routes.append({QLatin1String(half), true, nullptr});
    }
    for (const QString &route : selected)
        plan.routes.append({route, false,
                            QT_TRANSLATE_NOOP("MacVpnBackend",
                                              "Не удалось добавить исключение раздельного "
                                              "туннелирования: %1")});
    return plan;
}

QStringList ConnectionPlan::splitRoutes(const PeerValues::SplitTunnel &split, const Lookup &lookup,
                                        const QList<QHostAddress> &tunnelOwn)
{
    QStringList routes;
    for (const QVariant &entry : split.entries)
        routes += entryRoutes(entry.toMap(), split.mode, lookup, tunnelOwn);
    routes.removeDuplicates();
    if (!split.excluding())
        return routes;
    // Exclusions go to the IPv4 default gateway, so only IPv4 can be excluded.
    QStringList ipv4;
    for (const QString &route : std::as_const(routes)) {
        if (NetworkText::isIpv4Route(route))
            ipv4.append(route);
    }
    return ipv4;
}

// An exclusion leaves outside the tunnel: the addresses of its name are
// filtered as the network's resolver gave them (see BypassFilter).
QStringList ConnectionPlan::entryRoutes(const QVariantMap &entry, int mode, const Lookup &lookup,
                                        const QList<QHostAddress> &tunnelOwn)
{
    const QString value = entry.value(QStringLiteral("value")).toString().trimmed();
    if (NetworkText::isIpv4Route(value) || NetworkText::isIpv6Route(value))
        return {value};

    QStringList routes;
    if (mode == 2) {
        routes = aroundTunnel(value, lookup, tunnelOwn);
    } else {
        for (const QHostAddress &address : lookup(value).addresses()) {
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
    if (NetworkText::isIpv4Route(fallback) || NetworkText::isIpv6Route(fallback))
        return {fallback};

    qWarning() << "[MacVpnBackend] split tunnel host not resolved" << value;
    return {};
}

QStringList ConnectionPlan::aroundTunnel(const QString &name, const Lookup &lookup,
                                         const QList<QHostAddress> &tunnelOwn)
{
    const QHostInfo info = lookup(name);
    if (info.error() != QHostInfo::NoError) {
        qWarning() << "[MacVpnBackend] name resolve failed" << name << info.errorString();
        return {};
    }
    const BypassFilter::Verdict verdict = BypassFilter::filter(name, info.addresses(), tunnelOwn);
    for (const QString &dropped : verdict.dropped)
        qWarning() << "[MacVpnBackend] not routed around the tunnel:" << name << dropped;
    return verdict.kept;
}
