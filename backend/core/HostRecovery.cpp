// Undoing, at start-up, what an earlier run of the service left on the host,
// and what any undo could not do, tried again.
#include "backend/MacVpnBackend.h"

#include "backend/core/ProcessIdentity.h"

#include <QCoreApplication>
#include <QDebug>

namespace {

// An older instance that is handing over finishes its own undo first.
constexpr int JournalLockWaitMs = 30000;

} // namespace

// At boot the Mac may join a network before anyone connects: the block is
// the first thing the service does, before it listens or undoes anything.
void MacVpnBackend::engageBlockAtStart()
{
    if (!journal.takeOver(0) || !firewall.wanted())
        return;
    if (!firewall.update(&recoveryError)) {
        qWarning() << "[MacVpnBackend] block not put in force at start" << recoveryError;
        return;
    }
    qInfo() << "[MacVpnBackend] block verified"
            << ProcessIdentity::ageMs(QCoreApplication::applicationPid())
            << "ms after the process started";
}

// The same undo as a disconnect's, newest first, with the same test of what
// is still ours; what fails is kept for later. Runs before the event loop
// serves anything but "status", on a thread of its own: nothing here may
// touch what the event loop shares (the status and its message among them).
bool MacVpnBackend::recoverHostChanges()
{
    if (!journal.takeOver(JournalLockWaitMs))
        return false;
    const HostJournal::Records recorded = journal.records();
    if (recorded.session.isEmpty() && !recorded.settings.contains(QLatin1String("dns")) &&
        !recorded.settings.contains(QLatin1String("hostsBlock")) && !firewall.wanted())
        return true;

    qInfo() << "[MacVpnBackend] undoing host changes left by an earlier run";
    retryPendingUndo();
    restoreDns();
    removeRoutes();
    tunnel.stopRecorded();
    // A block an earlier run left stays while it is wanted, without the
    // tunnel it let through; one that is not wanted any more goes.
    firewall.setConnection({});
    if (!firewall.update(&recoveryError))
        qWarning() << "[MacVpnBackend] block not put in force" << recoveryError;
    flushDnsCache();
    saveJournal();
    qInfo() << "[MacVpnBackend] host changes of the earlier run undone"
            << (pendingUndo.isEmpty() ? "" : "but for some, kept to try again");
    return true;
}

// Back on the event loop: what the recovery left to say. "Blocking" only for
// a block verified in force.
void MacVpnBackend::reportRecovery()
{
    if (!pendingUndo.isEmpty()) {
        setError(pendingUndo.message());
        pendingUndo.schedule(true);
    }
    if (!recoveryError.isEmpty())
        setError(recoveryError);
    else if (firewall.isHeld() && firewall.blockingVerified())
        setError(Firewall::blockingMessage());
    recoveryError.clear();
    watchNetwork();
}

void MacVpnBackend::retryPendingUndo()
{
    if (pendingUndo.isEmpty())
        return;
    qInfo() << "[MacVpnBackend] trying again what could not be undone";
    pendingUndo.retry();
    saveJournal();
}

void MacVpnBackend::retryPendingWhileIdle()
{
    if (connectRunning || currentStatus == Connected)
        return;
    const QString before = pendingUndo.message();
    retryPendingUndo();
    if (!pendingUndo.isEmpty()) {
        // What is left now, unless the user is reading about a failed connect.
        if (lastErrorMessage == before || currentStatus != Error)
            setError(pendingUndo.message());
        pendingUndo.schedule(false);
    } else if (currentStatus == Error && lastErrorMessage == before) {
        qInfo() << "[MacVpnBackend] everything undone at last";
        setError(QString());
        setStatus(Disconnected);
    }
}
