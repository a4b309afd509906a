// Undoing, at start-up, what an earlier run of the service left on the host.
#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"
#include "backend/core/AtomicFile.h"
#include "backend/core/ProcessIdentity.h"

#include <QCoreApplication>
#include <QDebug>
#include <QElapsedTimer>
#include <QThread>

#include <csignal>

namespace {

// An older instance that is handing over finishes its own undo first.
constexpr int JournalLockWaitMs = 30000;
constexpr int RecordedTunnelStopMs = 5000;

bool waitUntilGone(qint64 pid, const QString &identity, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (ProcessIdentity::of(pid) == identity) {
        if (clock.elapsed() >= timeoutMs)
            return false;
        QThread::msleep(20);
    }
    return true;
}

} // namespace

bool MacVpnBackend::takeOverJournal(int waitMs)
{
    if (journalTaken)
        return true;
    if (!journal.lock(waitMs))
        return false;
    adoptJournalState(journal.load());
    AtomicFile::removeTemporaries(host.hostsFile);
    journalTaken = true;
    return true;
}

// At boot the Mac may join a network before anyone connects: the block is
// the first thing the service does, before it listens or undoes anything.
void MacVpnBackend::engageBlockAtStart()
{
    if (!takeOverJournal(0) || !blockWanted())
        return;
    if (!firewall.engage(blockRules(), &recoveryError)) {
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
    if (!takeOverJournal(JournalLockWaitMs))
        return false;
    if (journalState().session.isEmpty() && pendingUndo.isEmpty() && savedDnsServers.isEmpty() &&
        !hostsPinned && !blockWanted())
        return true;

    qInfo() << "[MacVpnBackend] undoing host changes left by an earlier run";
    retryPendingUndo();
    restoreDns();
    vpnDnsServers.clear();
    removeRoutes();
    stopRecordedTunnel();
    tunnelInterface.clear();
    serverHost.clear();
    physicalGateway.clear();
    // A block an earlier run left stays while it is wanted, without the
    // tunnel it let through; one that is not wanted any more goes.
    if (blockWanted()) {
        if (!firewall.engage(blockRules(), &recoveryError))
            qWarning() << "[MacVpnBackend] block not put in force" << recoveryError;
    } else if (firewall.holdsPf()) {
        pendingUndo.firewall = firewall.lift();
    }
    flushDnsCache();
    saveJournal();
    qInfo() << "[MacVpnBackend] host changes of the earlier run undone"
            << (pendingUndo.isEmpty() ? "" : "but for some, kept to try again");
    return true;
}

// The program is not our child any more: it is stopped by its pid, and only
// while that pid still belongs to the very process we started. Recorded as
// about to start but with no pid yet, it is the orphan running that program.
void MacVpnBackend::stopRecordedTunnel()
{
    QList<QPair<qint64, QString>> stopping;
    if (tunnelPid > 0 && ProcessIdentity::of(tunnelPid) == tunnelIdentity)
        stopping.append({tunnelPid, tunnelIdentity});
    else if (tunnelPid > 0)
        qInfo() << "[MacVpnBackend] tunnel program of the earlier run is gone" << tunnelPid;
    else if (!tunnelProgram.isEmpty())
        for (const qint64 orphan : ProcessIdentity::orphansOf(tunnelProgram))
            stopping.append({orphan, ProcessIdentity::of(orphan)});
    for (const auto &[pid, identity] : std::as_const(stopping)) {
        qInfo() << "[MacVpnBackend] stopping tunnel program of the earlier run" << pid;
        ::kill(pid_t(pid), SIGTERM);
        if (!waitUntilGone(pid, identity, RecordedTunnelStopMs)) {
            ::kill(pid_t(pid), SIGKILL);
            waitUntilGone(pid, identity, RecordedTunnelStopMs);
        }
    }
    tunnelProgram.clear();
    tunnelPid = 0;
    tunnelIdentity.clear();
}

// Back on the event loop: what the recovery left to say. "Blocking" only for
// a block verified in force.
void MacVpnBackend::reportRecovery()
{
    if (!pendingUndo.isEmpty()) {
        setError(pendingUndo.message(host.hostsFile));
        pendingUndo.schedule(true);
    }
    if (!recoveryError.isEmpty())
        setError(tr("Не удалось включить блокировку трафика вне туннеля: %1").arg(recoveryError));
    else if (killSwitchHeld && firewall.enforcement() == KillSwitch::Enforcement::Enforced)
        setError(killSwitchBlockingMessage());
    recoveryError.clear();
    watchNetwork();
}
