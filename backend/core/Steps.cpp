// The steps of the sequence by their names, each handed to the room that
// owns what it changes, and the values a connect derives on the way.
#include "backend/MacVpnBackend.h"

#include "backend/BackendConstants.h"
#include "backend/core/CommandRunner.h"
#include "backend/plan/NameResolver.h"
#include "backend/tunnel/TunnelInterface.h"
#include "backend/tunnel/UapiClient.h"
#include "backend/tunnel/UapiSetConfig.h"
#include "config/NetworkText.h"

#include <QDebug>

namespace {

// All names of a connect together: a resolver that never answers costs this
// much, once.
constexpr int NameLookupDeadlineMs = 5000;

} // namespace

bool MacVpnBackend::runCommand(const QString &program, const QStringList &arguments,
                               QString *standardOutput, QString *standardError, int timeoutMs) const
{
    return CommandRunner::run(program, arguments, QByteArray(), standardOutput, standardError,
                              timeoutMs);
}

QString MacVpnBackend::findTunnelBinary() const
{
    return tunnel.find();
}

bool MacVpnBackend::startTunnelProcess()
{
    const QString error = tunnel.start(findTunnelBinary(), [this] { return connectCancelled; });
    if (!error.isEmpty())
        setError(error);
    return error.isEmpty() && !tunnel.interfaceName().isEmpty();
}

void MacVpnBackend::stopTunnelProcess()
{
    tunnel.stop();
}

QString MacVpnBackend::uapiCommand(const QString &payload)
{
    return tunnel.command(payload);
}

int MacVpnBackend::uapiErrno(const QString &reply) const
{
    return UapiClient::errnoOf(reply);
}

QString MacVpnBackend::uapiSetConfig(const ParsedVpnConfig &config) const
{
    qInfo() << "[MacVpnBackend] build uapiSetConfig";
    return UapiSetConfig::text(config);
}

QString MacVpnBackend::endpointHost(const ParsedVpnConfig &config) const
{
    return PeerValues::endpointHost(config);
}

int MacVpnBackend::endpointPort(const ParsedVpnConfig &config) const
{
    return PeerValues::endpointPort(config);
}

QString MacVpnBackend::clientIpv4(const ParsedVpnConfig &config) const
{
    return PeerValues::clientIpv4(config);
}

QStringList MacVpnBackend::allowedIps(const ParsedVpnConfig &config) const
{
    const QStringList ranges = PeerValues::allowedIps(config);
    qInfo() << "[MacVpnBackend] allowedIps" << ranges;
    return ranges;
}

QString MacVpnBackend::hexKey(const QString &key) const
{
    return PeerValues::hexKey(key);
}

MacVpnBackend::SplitTunnelSettings MacVpnBackend::splitTunnelFromPeer(const QVariantMap &peer) const
{
    return PeerValues::splitTunnel(peer);
}

bool MacVpnBackend::configureInterface(const ParsedVpnConfig &config)
{
    const QString error = TunnelInterface::configure(host, tunnel.interfaceName(), config);
    if (!error.isEmpty())
        setError(error);
    return error.isEmpty();
}

// The server's route, the control-plane host's, then the tunnel's own and
// the exclusions, each recorded before it is added.
bool MacVpnBackend::configureRoutes(const ParsedVpnConfig &config)
{
    QString error;
    bool done = routes.addServerRoute(plan.server, &error);
    qInfo() << "[MacVpnBackend] configureRoutes"
            << "endpoint=" << plan.server << "gateway=" << routes.gateway()
            << "allowedIps=" << allowedIps(config) << "splitMode=" << splitTunnel.mode
            << "routes=" << plan.routes.size();
    if (done) {
        installControlPlaneBypass();
        done = routes.addRoutes(plan.routes, tunnel.interfaceName(), &error);
    }
    if (!done && !error.isEmpty())
        setError(error);
    return done;
}

// Newest first: the tunnel's routes, the bypass hosts, then the route to the
// server; the hosts block before them.
void MacVpnBackend::removeRoutes()
{
    unpinControlPlaneHosts();
    routes.removeAll();
}

QStringList MacVpnBackend::splitTunnelRoutes() const
{
    return ConnectionPlan::splitRoutes(
        splitTunnel, [this](const QString &name) { return names.of(name); }, plan.tunnelOwn);
}

QStringList MacVpnBackend::resolvedSplitTunnelRoutes(const QVariantMap &entry) const
{
    return ConnectionPlan::entryRoutes(entry, splitTunnel.mode,
                                       [this](const QString &name) { return names.of(name); },
                                       plan.tunnelOwn);
}

bool MacVpnBackend::configureDns(const ParsedVpnConfig &config)
{
    qInfo() << "[MacVpnBackend] configureDns" << plan.dnsServers;
    Q_UNUSED(config)
    QStringList services;
    if (!plan.dnsServers.isEmpty() && dns.listServices(&services))
        dns.setTunnelServers(plan.dnsServers);
    applyLastingChanges(dns.tunnelServers().isEmpty() ? QStringList() : services,
                        dns.tunnelServers());
    return true;
}

void MacVpnBackend::restoreDns()
{
    dns.restore();
}

QStringList MacVpnBackend::enabledServices(const QString &listing) const
{
    return DnsSettings::enabledServices(listing);
}

void MacVpnBackend::flushDnsCache() const
{
    qInfo() << "[MacVpnBackend] flushDnsCache";
    runCommand(host.dscacheutilTool, {QStringLiteral("-flushcache")}, nullptr, nullptr,
               CommandTimeoutMs);
    runCommand(host.killallTool, {QStringLiteral("-HUP"), QStringLiteral("mDNSResponder")}, nullptr,
               nullptr, CommandTimeoutMs);
}

// The control-plane host is reached around the tunnel, by the physical
// gateway, at the addresses the network's resolver gave for it (those that
// pass BypassFilter), and pinned to them in the hosts file once the lasting
// changes are recorded.
void MacVpnBackend::installControlPlaneBypass()
{
    removeControlPlaneBypass();
    hostsBlock.expect(routes.addBypass(plan.bypass));
}

void MacVpnBackend::removeControlPlaneBypass()
{
    unpinControlPlaneHosts();
    routes.removeBypass();
}

QString MacVpnBackend::controlPlaneHost() const
{
    return HostsBlock::controlPlaneHost();
}

void MacVpnBackend::pinControlPlaneHosts(const QStringList &addresses)
{
    hostsBlock.pin(addresses);
}

void MacVpnBackend::unpinControlPlaneHosts()
{
    hostsBlock.unpin();
}

QString MacVpnBackend::defaultGateway()
{
    return routes.defaultGatewayOf(false);
}

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
    return RouteEntry::to(route, QString()).family;
}

QString MacVpnBackend::routeType(const QString &route) const
{
    return RouteEntry::to(route, QString()).type;
}

// What outlasts a reboot is recorded once, durably, before any of it
// changes: each service's servers as read, and the hosts block.
void MacVpnBackend::applyLastingChanges(const QStringList &services, const QStringList &servers)
{
    const QStringList changing = dns.prepare(services);
    hostsBlock.prepare();
    if (!saveJournal()) {
        qWarning() << "[MacVpnBackend] DNS servers and hosts left alone: journal not written";
        dns.forget(changing);
        hostsBlock.forget();
        return;
    }
    hostsBlock.pin();
    dns.set(changing, servers);
}

// Network services that appear while connected (a cable plugged in) get the
// tunnel's DNS servers too, theirs saved like the others'.
void MacVpnBackend::configureDnsOnNewServices()
{
    QStringList services;
    if (!dns.listServices(&services))
        return;
    QStringList added;
    for (const QString &service : std::as_const(services)) {
        if (!dns.covers(service)) {
            qInfo() << "[MacVpnBackend] new network service" << service;
            added.append(service);
        }
    }
    if (!added.isEmpty())
        applyLastingChanges(added, dns.tunnelServers());
}

// The names the connect needs (its endpoint, split-tunnel hosts, the
// control-plane host), looked up together under one deadline before the
// tunnel starts. Under a block no look-up gets out: the endpoint goes by the
// address it had last time.
void MacVpnBackend::resolveNames(const QString &endpoint)
{
    QStringList wanted = {controlPlaneHost()};
    if (!NetworkText::isAddress(endpoint) &&
        !(firewall.isEngaged() && !endpointAddresses.addressOf(endpoint).isEmpty()))
        wanted.append(endpoint);
    if (splitTunnel.enabled) {
        for (const QVariant &entry : std::as_const(splitTunnel.entries)) {
            const QString value = entry.toMap().value(QStringLiteral("value")).toString().trimmed();
            if (!isIpv4Route(value) && !isIpv6Route(value))
                wanted.append(value);
        }
    }
    names.resolve(wanted, NameLookupDeadlineMs, [this] { return connectCancelled; });
}

// The endpoint's name stands for one address, the same for the server
// route, the tunnel program, the journal and the firewall: the first of IPv4
// the resolver gave, else the first of IPv6, never one that leads nowhere.
QString MacVpnBackend::endpointAddress(const QString &endpoint) const
{
    if (NetworkText::isAddress(endpoint))
        return endpoint;
    if (firewall.isEngaged() && !endpointAddresses.addressOf(endpoint).isEmpty())
        return endpointAddresses.addressOf(endpoint);
    QString fallback;
    for (const QHostAddress &address : names.of(endpoint).addresses()) {
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
