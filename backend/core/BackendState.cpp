#include "backend/MacVpnBackend.h"

#include <QDebug>

MacVpnBackend::MacVpnBackend(QObject *parent) : MacVpnBackend(MacHostEnvironment(), parent) {}

MacVpnBackend::MacVpnBackend(MacHostEnvironment environment, QObject *parent)
    : PlatformVpnBackend(parent), host(std::move(environment)), journal(host.journalDir)
{
    watchTunnelProcess();
    connect(&routeMonitor, &RouteMonitor::settled, this, &MacVpnBackend::followNetworkChange);
    pendingRetry.setSingleShot(true);
    connect(&pendingRetry, &QTimer::timeout, this, &MacVpnBackend::retryPendingWhileIdle);
}

MacVpnBackend::~MacVpnBackend()
{
    cleanup();
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
