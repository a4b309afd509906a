#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"
#include "backend/core/LogMasking.h"
#include "config/ConnectValidator.h"
#include "config/NetworkText.h"

#include <QDebug>
#include <QScopeGuard>

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
    pause.stop();
    setError(QString());
    setStatus(Connecting);
    connectRunning = true;
    connectCancelled = false;
    const auto finished = qScopeGuard([this] { connectRunning = false; });
    // A block in force stays while the old tunnel goes and the new one comes,
    // so no packet slips out between two connects; should this connect fail,
    // the block ends as it was before it.
    cleanup(Block::Keep);
    const bool heldBefore = killSwitchHeld;
    killSwitch = killSwitchFromPeer(peer);
    bool succeeded = false;
    const auto restoreBlock = qScopeGuard([this, heldBefore, &succeeded] {
        if (succeeded || connectCancelled)
            return;
        killSwitchHeld = heldBefore;
        firewallEndpoint.clear();
        updateBlock();
        watchNetwork();
    });
    // Nothing new on top of what an earlier connection left and could not undo.
    if (!pendingUndo.isEmpty()) {
        qWarning() << "[MacVpnBackend] connect refused: earlier changes still to undo";
        setError(pendingUndo.message(host.hostsFile));
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

    tunnelAddresses.clear();
    tunnelDnsServers.clear();
    for (const QString &server : {config.dns1, config.dns2}) {
        if (NetworkText::isAddress(server.trimmed()))
            tunnelDnsServers.append(server.trimmed());
    }
    for (const QString &own :
         {config.dns1, config.dns2, clientIpv4(config), QString(DefaultIpv6Address)}) {
        if (NetworkText::isAddress(own.trimmed()))
            tunnelAddresses.append(QHostAddress(own.trimmed()));
    }
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

    // Before the tunnel program starts: from then on, with a block, only the
    // server's port leaves outside the tunnel.
    killSwitchHeld = killSwitchHeld || killSwitch.enabled;
    firewallEndpoint = resolved.hostName;
    firewallPort = endpointPort(config);
    if (blockWanted() && !updateBlock()) {
        qWarning() << "[MacVpnBackend] kill switch failed" << lastError();
        return;
    }

    // Nothing is changed that could not be recorded first: the program, before it starts.
    tunnelProgram = binary;
    if (!recordHostChange()) {
        qWarning() << "[MacVpnBackend] host journal unusable" << lastError();
        tunnelProgram.clear();
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

    tunnelEndpoint = endpointOf(resolved);
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

    if (!configureRoutes(resolved) || (blockWanted() && !updateBlock())) {
        qWarning() << "[MacVpnBackend] configureRoutes failed" << lastError();
        const QString error = lastError();
        cleanup(Block::Keep);
        setError(error);
        return;
    }

    if (splitTunnel.enabled && splitTunnel.mode == 1) {
        qInfo() << "[MacVpnBackend] skip global DNS for only-selected split tunnel";
        applyLastingChanges({}, {});
    } else {
        configureDns(config);
    }
    flushDnsCache();

    // A connect without the kill switch ends a block the last one left,
    // unless always-on keeps it.
    killSwitchHeld = killSwitch.enabled;
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
    const SplitTunnelSettings split = splitTunnelFromPeer(peer);
    if (alwaysOn.enabled && split.enabled && split.mode == 1)
        return ConnectValidator::onlySelectedBlockedMessage();
    return QString();
}

bool MacVpnBackend::connectInProgress() const
{
    return connectRunning;
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
            setError(pendingUndo.message(host.hostsFile));
            pendingUndo.schedule(true);
        }
    }
    watchNetwork();
    Q_EMIT disconnected();
}

// Applies the empty state: everything the tunnel changed is undone. The
// block stays while it is wanted, now without the tunnel it let through.
void MacVpnBackend::cleanup(Block block)
{
    qInfo() << "[MacVpnBackend] cleanup";
    retryPendingUndo();
    routeMonitor.stop();
    restoreDns();
    vpnDnsServers.clear();
    removeRoutes();
    stopTunnelProcess();
    if (block == Block::Lift)
        killSwitchHeld = false;
    tunnelInterface.clear();
    serverHost.clear();
    physicalGateway.clear();
    firewallEndpoint.clear();
    if (!updateBlock() && !firewall.isEngaged())
        qWarning() << "[MacVpnBackend] block not restored" << lastError();
    flushDnsCache();
    saveJournal();
}
