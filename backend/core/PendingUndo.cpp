// Undo steps that failed: a network service whose DNS servers configd would
// not take back, a route that would not go. Each stays in the journal with
// its last error and is tried again at the next clean-up, at the next start,
// and on a back-off timer while the service idles; until then the status is
// error, naming what is left.
#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"

#include <QDebug>

namespace {

// A few tries over some minutes; after that, at the next clean-up or start.
constexpr int RetryDelaysMs[] = {10000, 30000, 60000, 120000, 300000};

} // namespace

void MacVpnBackend::retryPendingUndo()
{
    if (pendingUndo.isEmpty())
        return;
    qInfo() << "[MacVpnBackend] trying again what could not be undone";
    for (auto it = pendingUndo.dns.begin(); it != pendingUndo.dns.end();) {
        it->error = setDnsServers(it.key(), it->servers);
        it = it->error.isEmpty() ? pendingUndo.dns.erase(it) : std::next(it);
    }
    if (!pendingUndo.hostsBlock.isEmpty()) {
        pendingUndo.hostsBlock = removeHostsBlock();
        hostsPinned = !pendingUndo.hostsBlock.isEmpty();
    }
    if (!pendingUndo.firewall.isEmpty())
        pendingUndo.firewall = liftKillSwitch();
    for (PendingRoute &pending : pendingUndo.routes)
        pending.error = deleteRoute(pending.route);
    pendingUndo.routes.removeIf(
        [](const PendingRoute &pending) { return pending.error.isEmpty(); });
    saveJournal();
}

QVariantList MacVpnBackend::pendingUndoSteps() const
{
    QVariantList steps;
    const auto step = [&steps](const QString &what, const QString &error) {
        steps.append(QVariantMap{{QStringLiteral("what"), what}, {QStringLiteral("error"), error}});
    };
    for (auto it = pendingUndo.dns.cbegin(); it != pendingUndo.dns.cend(); ++it)
        step(tr("DNS службы «%1»").arg(it.key()), it->error);
    if (!pendingUndo.hostsBlock.isEmpty())
        step(tr("блок в %1").arg(host.hostsFile), pendingUndo.hostsBlock);
    if (!pendingUndo.firewall.isEmpty())
        step(tr("правила pf"), pendingUndo.firewall);
    for (const PendingRoute &pending : pendingUndo.routes)
        step(tr("маршрут %1").arg(pending.route.destination), pending.error);
    return steps;
}

QString MacVpnBackend::pendingUndoMessage() const
{
    QStringList left;
    for (const QVariant &step : pendingUndoSteps())
        left.append(step.toMap().value(QStringLiteral("what")).toString());
    return tr("Не удалось вернуть прежние настройки системы: %1. Служба повторит попытку сама")
        .arg(left.join(QLatin1String(", ")));
}

// Tells the user what is left, and tries again on the back-off timer.
void MacVpnBackend::schedulePendingRetry(bool afresh)
{
    if (afresh)
        pendingRetries = 0;
    if (pendingUndo.isEmpty() || pendingRetries >= int(std::size(RetryDelaysMs))) {
        pendingRetry.stop();
        return;
    }
    pendingRetry.start(RetryDelaysMs[pendingRetries++]);
}

void MacVpnBackend::retryPendingWhileIdle()
{
    if (connectRunning || currentStatus == Connected)
        return;
    const QString before = pendingUndoMessage();
    retryPendingUndo();
    if (!pendingUndo.isEmpty()) {
        // What is left now, unless the user is reading about a failed connect.
        if (lastErrorMessage == before || currentStatus != Error)
            setError(pendingUndoMessage());
        schedulePendingRetry(false);
    } else if (currentStatus == Error && lastErrorMessage == before) {
        qInfo() << "[MacVpnBackend] everything undone at last";
        setError(QString());
        setStatus(Disconnected);
    }
}

void MacVpnBackend::reportRecovery()
{
    if (!pendingUndo.isEmpty()) {
        setError(pendingUndoMessage());
        schedulePendingRetry(true);
    }
    // The last run had the kill switch on: the block stays until the user decides.
    if (killSwitchBlocking)
        setError(killSwitchBlockingMessage());
}
