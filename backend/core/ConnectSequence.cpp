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
    const QString problem = ConnectValidator::problem(config, peer);
    if (!problem.isEmpty()) {
        qWarning() << "[MacVpnBackend] connect refused" << problem;
        setError(problem);
        return;
    }

    splitTunnel = splitTunnelFromPeer(peer);
    killSwitch = killSwitchFromPeer(peer);
    setError(QString());
    setStatus(Connecting);
    connectRunning = true;
    connectCancelled = false;
    const auto finished = qScopeGuard([this] { connectRunning = false; });
    // A block still in place stays, so no packet slips out between two
    // connects that both want it.
    cleanup(killSwitch.enabled ? Block::Keep : Block::Lift);
    // Nothing new on top of what an earlier connection left and could not undo.
    if (!pendingUndo.isEmpty()) {
        qWarning() << "[MacVpnBackend] connect refused: earlier changes still to undo";
        setError(pendingUndoMessage());
        schedulePendingRetry(true);
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
    // Resolved once: the route to the server and the tunnel program go by
    // the same address, and the journal knows which.
    ParsedVpnConfig resolved = config;
    resolved.hostName = endpointAddress(endpointHost(config));
    if (resolved.hostName.isEmpty()) {
        qWarning() << "[MacVpnBackend] endpoint not resolved" << endpointHost(config);
        setError(tr("Не удалось определить адрес сервера %1").arg(endpointHost(config)));
        return;
    }

    if (killSwitch.enabled && !engageKillSwitch(resolved.hostName, endpointPort(config))) {
        qWarning() << "[MacVpnBackend] kill switch failed" << lastError();
        const QString error = lastError();
        cleanup();
        setError(error);
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
        cleanup();
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
        cleanup();
        setError(tr("Не удалось применить WireGuard/AWG-конфигурацию"));
        return;
    }

    if (!configureInterface(config)) {
        qWarning() << "[MacVpnBackend] configureInterface failed" << lastError();
        cleanup();
        return;
    }

    if (!configureRoutes(resolved) || !updateKillSwitch()) {
        qWarning() << "[MacVpnBackend] configureRoutes failed" << lastError();
        cleanup();
        return;
    }

    if (splitTunnel.enabled && splitTunnel.mode == 1) {
        qInfo() << "[MacVpnBackend] skip global DNS for only-selected split tunnel";
        applyLastingChanges({}, {});
    } else {
        configureDns(config);
    }
    flushDnsCache();

    // The routes around the tunnel follow the Mac from network to network.
    routeMonitor.start(host.routeTool);
    qInfo() << "[MacVpnBackend] connected";
    setStatus(Connected);
    Q_EMIT connected();
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
            setError(pendingUndoMessage());
            schedulePendingRetry(true);
        }
    }
    Q_EMIT disconnected();
}

void MacVpnBackend::cleanup(Block block)
{
    qInfo() << "[MacVpnBackend] cleanup";
    retryPendingUndo();
    routeMonitor.stop();
    vpnDnsServers.clear();
    restoreDns();
    removeRoutes();
    stopTunnelProcess();
    if (block == Block::Lift && pendingUndo.firewall.isEmpty())
        pendingUndo.firewall = liftKillSwitch();
    flushDnsCache();
    tunnelInterface.clear();
    serverHost.clear();
    physicalGateway.clear();
    saveJournal();
}
