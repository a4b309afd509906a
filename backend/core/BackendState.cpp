#include "backend/MacVpnBackend.h"

#include <QDebug>

MacVpnBackend::MacVpnBackend(QObject *parent) : MacVpnBackend(MacHostEnvironment(), parent) {}

MacVpnBackend::MacVpnBackend(MacHostEnvironment environment, QObject *parent)
    : PlatformVpnBackend(parent), host(std::move(environment)), journal(host.journalDir),
      firewall(host.pfctlTool, [this](QString *error) { return saveJournal(error); })
{
    watchTunnelProcess();
    connect(&routeMonitor, &RouteMonitor::settled, this, &MacVpnBackend::followNetworkChange);
    connect(&pendingUndo, &PendingUndo::due, this, &MacVpnBackend::retryPendingWhileIdle);
    pause.setSingleShot(true);
    connect(&pause, &QTimer::timeout, this, &MacVpnBackend::endPause);
}

// An orderly stop (an upgrade, a restart) undoes the tunnel's changes but
// never opens the network: a block in force stays, recorded, for the next
// instance to take over; a pause of always-on ends.
MacVpnBackend::~MacVpnBackend()
{
    pause.stop();
    cleanup(Block::Keep);
}

PlatformVpnBackend::Status MacVpnBackend::status() const
{
    return static_cast<Status>(currentStatus);
}

QString MacVpnBackend::lastError() const
{
    return lastErrorMessage;
}

void MacVpnBackend::setStatus(Status status)
{
    if (status == currentStatus)
        return;
    currentStatus = status;
    qInfo() << "[MacVpnBackend] status changed" << status;
    Q_EMIT statusChanged(status);
}

void MacVpnBackend::setError(const QString &message)
{
    lastErrorMessage = message;
    if (message.isEmpty())
        return;
    qWarning() << "[MacVpnBackend] error:" << message;
    setStatus(Error);
    Q_EMIT errorOccurred(lastErrorMessage);
}
