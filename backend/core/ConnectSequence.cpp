// The connect and disconnect sequence: what a connection wants of the host
// (ConnectionPlan), handed to each room in turn, and the clean-up that
// applies the empty plan.
#include "backend/MacVpnBackend.h"

#include "backend/core/LogMasking.h"
#include "config/ConnectValidator.h"
#include "config/NetworkText.h"

#include <QDebug>
#include <QScopeGuard>

namespace {

// What the connected tunnel lets through the block: its server, its
// interface, its DNS servers through it, and what goes around it by design;
// Apple's networks as the user chose, by default only when no kill switch
// was asked for; with "only selected", which destinations are the tunnel's.
FirewallRules::Allowed connectedTraffic(const ConnectionPlan &plan, const TunnelProgram &tunnel,
                                        const HostRoutes &routes, bool appleAroundTunnel)
{
    FirewallRules::Allowed allowed;
    allowed.endpoint = plan.server;
    allowed.port = plan.port;
    allowed.tunnelInterface = tunnel.interfaceName();
    allowed.tunnelDns = plan.tunnelDns;
    allowed.https = routes.bypassHosts();
    allowed.around = routes.around();
    allowed.appleServices = appleAroundTunnel;
    if (!plan.dnsForAll)
        allowed.onlyThrough = routes.through();
    return allowed;
}

} // namespace

void MacVpnBackend::connectVpn(const ParsedVpnConfig &config)
{
    connectVpn(config, QVariantMap());
}

void MacVpnBackend::connectVpn(const ParsedVpnConfig &config, const QVariantMap &peer)
{
    qInfo() << "[MacVpnBackend] connectVpn start"
            << "container=" << config.container << "protocol=" << config.protocolName
            << "host=" << endpointHost(config);

    // Every value is checked before anything is touched, the clean-up included.
    const QString problem = refusal(config, peer);
    if (!problem.isEmpty()) {
        qWarning() << "[MacVpnBackend] connect refused" << problem;
        setError(problem);
        return;
    }

    splitTunnel = splitTunnelFromPeer(peer);
    // A connect ends a pause of always-on: the block opens only for its server.
    firewall.stopPause();
    setError(QString());
    setStatus(Connecting);
    connectRunning = true;
    connectCancelled = false;
    const auto finished = qScopeGuard([this] { connectRunning = false; });
    // A block in force stays while the old tunnel goes and the new one comes,
    // so no packet slips out between two connects; should this connect fail,
    // the block ends as it was before it.
    cleanup(Block::Keep);
    const bool heldBefore = firewall.isHeld();
    const PeerValues::KillSwitch killSwitch = PeerValues::killSwitch(peer);
    bool succeeded = false;
    const auto restoreBlock = qScopeGuard([this, heldBefore, killSwitch, &succeeded] {
        if (succeeded || connectCancelled)
            return;
        firewall.hold(heldBefore, killSwitch.allowLan);
        firewall.setConnection({});
        updateBlock();
        watchNetwork();
    });
    // Nothing new on top of what an earlier connection left and could not undo.
    if (!pendingUndo.isEmpty()) {
        qWarning() << "[MacVpnBackend] connect refused: earlier changes still to undo";
        setError(pendingUndo.message());
        pendingUndo.schedule(true);
        return;
    }

    const QString binary = findTunnelBinary();
    if (binary.isEmpty()) {
        qWarning() << "[MacVpnBackend] amneziawg-go not found";
        setError(tr("Не найден amneziawg-go рядом с приложением"));
        return;
    }
    qInfo() << "[MacVpnBackend] amneziawg-go found" << binary;

    resolveNames(endpointHost(config));
    if (connectCancelled) {
        qInfo() << "[MacVpnBackend] connect cancelled by disconnect";
        return;
    }
    // Resolved once: the route to the server, the tunnel program and the
    // firewall go by the same address, and the journal knows which.
    ParsedVpnConfig resolved = config;
    resolved.hostName = endpointAddress(endpointHost(config));
    if (resolved.hostName.isEmpty()) {
        qWarning() << "[MacVpnBackend] endpoint not resolved" << endpointHost(config);
        setError(tr("Не удалось определить адрес сервера %1").arg(endpointHost(config)));
        return;
    }
    if (!NetworkText::isAddress(endpointHost(config)))
        endpointAddresses.remember(endpointHost(config), resolved.hostName);
    plan = ConnectionPlan::of(resolved, splitTunnel, controlPlaneHost(),
                              [this](const QString &name) { return names.of(name); });

    // Before the tunnel program starts: from then on, with a block, only the
    // server's port leaves outside the tunnel.
    firewall.hold(firewall.isHeld() || killSwitch.enabled, killSwitch.allowLan);
    FirewallRules::Allowed server;
    server.endpoint = plan.server;
    server.port = plan.port;
    firewall.setConnection(server);
    if (firewall.wanted() && !updateBlock()) {
        qWarning() << "[MacVpnBackend] kill switch failed" << lastError();
        return;
    }

    if (!startTunnelProcess()) {
        // A disconnect served while we waited for the interface has already
        // undone everything and left the backend Disconnected.
        if (connectCancelled) {
            qInfo() << "[MacVpnBackend] connect cancelled by disconnect";
            return;
        }
        qWarning() << "[MacVpnBackend] startTunnelProcess failed" << lastError();
        cleanup(Block::Keep);
        return;
    }

    const QString setConfig = uapiSetConfig(resolved);
    qInfo().noquote() << QLatin1String("[MacVpnBackend] uapi set config command =\n") +
                             LogMasking::uapiText(setConfig);
    const QString reply = uapiCommand(setConfig);
    qInfo().noquote() << QLatin1String("[MacVpnBackend] uapi reply =\n") + reply;
    const int error = uapiErrno(reply);
    qInfo() << "[MacVpnBackend] uapi reply errno" << error;
    if (error != 0) {
        cleanup(Block::Keep);
        setError(tr("Не удалось применить WireGuard/AWG-конфигурацию"));
        return;
    }

    if (!configureInterface(config)) {
        qWarning() << "[MacVpnBackend] configureInterface failed" << lastError();
        cleanup(Block::Keep);
        return;
    }

    // The protection comes with the routes, before DNS goes to the tunnel.
    const bool routed = configureRoutes(resolved);
    const PeerValues::LeakProtection leaks = PeerValues::leakProtection(peer);
    const bool apple = leaks.appleAroundTunnel.value_or(!killSwitch.enabled &&
                                                        !firewall.alwaysOnSettings().enabled);
    if (routed)
        firewall.setConnection(connectedTraffic(plan, tunnel, routes, apple), leaks.enabled);
    if (!routed || (firewall.wanted() && !updateBlock())) {
        qWarning() << "[MacVpnBackend] configureRoutes failed" << lastError();
        const QString error = lastError();
        cleanup(Block::Keep);
        setError(error);
        return;
    }

    if (plan.dnsForAll) {
        configureDns(config);
    } else {
        qInfo() << "[MacVpnBackend] skip global DNS for only-selected split tunnel";
        applyLastingChanges({}, {});
    }
    flushDnsCache();

    // A connect without the kill switch ends a block the last one left,
    // unless always-on keeps it.
    firewall.hold(killSwitch.enabled, killSwitch.allowLan);
    succeeded = true;
    if (!updateBlock()) {
        succeeded = false;
        const QString error = lastError();
        cleanup(Block::Keep);
        setError(error);
        return;
    }
    qInfo() << "[MacVpnBackend] connected";
    setStatus(Connected);
    // The routes around the tunnel follow the Mac from network to network.
    watchNetwork();
    saveJournal();
    Q_EMIT connected();
}

QString MacVpnBackend::refusal(const ParsedVpnConfig &config, const QVariantMap &peer) const
{
    const QString problem = ConnectValidator::problem(config, peer);
    if (!problem.isEmpty())
        return problem;
    // With always-on, only what is selected would reach anything at all.
    if (firewall.alwaysOnSettings().enabled && splitTunnelFromPeer(peer).onlySelected())
        return ConnectValidator::onlySelectedBlockedMessage();
    return QString();
}

void MacVpnBackend::disconnectVpn()
{
    qInfo() << "[MacVpnBackend] disconnectVpn"
            << "status=" << status();
    setError(QString());
    if (connectRunning)
        connectCancelled = true;
    if (currentStatus != Disconnected) {
        setStatus(Disconnecting);
        cleanup();
        setStatus(Disconnected);
        // What would not be undone is said, and tried again.
        if (!pendingUndo.isEmpty()) {
            setError(pendingUndo.message());
            pendingUndo.schedule(true);
        }
    }
    watchNetwork();
    Q_EMIT disconnected();
}

// Applies the empty plan: everything the tunnel changed is undone. The
// block stays while it is wanted, now without the tunnel it let through.
void MacVpnBackend::cleanup(Block block)
{
    qInfo() << "[MacVpnBackend] cleanup";
    retryPendingUndo();
    routes.watch(false);
    restoreDns();
    removeRoutes();
    stopTunnelProcess();
    if (block == Block::Lift)
        firewall.hold(false, false);
    tunnel.forgetInterface();
    firewall.setConnection({});
    if (!updateBlock() && !firewall.isEngaged())
        qWarning() << "[MacVpnBackend] block not restored" << lastError();
    flushDnsCache();
    saveJournal();
}

// A tunnel program that dies while connected leaves routes into a dead utun
// and DNS servers behind a dead tunnel: the Mac would be offline. The routes
// and DNS are undone as ever; a block in force stays, without the tunnel,
// until the user decides.
void MacVpnBackend::handleTunnelExit()
{
    if (currentStatus != Connected)
        return;
    qWarning() << "[MacVpnBackend] tunnel program exited while connected" << tunnel.exitReport();
    cleanup(Block::Keep);
    setError(firewall.isHeld() ? Firewall::blockingMessage()
                               : tr("VPN-туннель прервался: amneziawg-go неожиданно завершился"));
    watchNetwork();
}

bool MacVpnBackend::updateBlock()
{
    QString error;
    if (firewall.update(&error))
        return true;
    setError(error);
    return false;
}

// The route monitor runs while connected or blocking; the block is checked then.
void MacVpnBackend::watchNetwork()
{
    routes.watch(currentStatus == Connected || firewall.isEngaged());
    firewall.watch();
}

// A new network, or a wake: whoever else was at work meanwhile may have
// disabled pf or replaced its rules. While connected, the routes around the
// tunnel follow the new way out, and new network services get the tunnel's
// DNS servers.
void MacVpnBackend::followNetworkChange(const RouteMonitor::Changes &changes)
{
    // The routes first: the tunnel's server must stay reachable; pf's check
    // takes a few calls of a tool.
    if (currentStatus == Connected && routes.follow(changes) && !dns.tunnelServers().isEmpty())
        configureDnsOnNewServices();
    if (changes.wayOut && firewall.isEngaged())
        firewall.verify();
}

// Recorded durably before anything changes: a reboot keeps the setting, and
// the block comes back at the next start.
bool MacVpnBackend::setAlwaysOn(const AlwaysOnSettings &settings)
{
    const AlwaysOnSettings before = firewall.alwaysOnSettings();
    firewall.setAlwaysOn(settings);
    if (!recordHostChange()) {
        firewall.setAlwaysOn(before);
        return false;
    }
    const bool done = updateBlock();
    watchNetwork();
    return done;
}

QString MacVpnBackend::pauseAlwaysOn(int seconds)
{
    const QString refused =
        firewall.pauseAlwaysOn(seconds, currentStatus == Connected || connectRunning);
    watchNetwork();
    return refused;
}
