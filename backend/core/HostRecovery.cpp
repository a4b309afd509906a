// Undoing, at start-up, what an earlier run of the service left on the host.
#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"
#include "backend/core/AtomicFile.h"
#include "backend/core/ProcessIdentity.h"
#include "backend/host/RouteReply.h"

#include <QDebug>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QThread>

#include <csignal>

namespace {

// An older instance that is handing over finishes its own undo first.
constexpr int JournalLockWaitMs = 30000;
constexpr int RecordedTunnelStopMs = 5000;

// The length of a network mask as route prints it ("128.0.0.0", "default").
int prefixOfMask(const QString &mask, bool ipv6)
{
    const QHostAddress address = RouteReply::address(mask, ipv6);
    int bits = 0;
    if (address.protocol() == QAbstractSocket::IPv4Protocol) {
        for (quint32 value = address.toIPv4Address(); value; value <<= 1)
            bits += (value & 0x80000000u) ? 1 : 0;
    } else {
        const Q_IPV6ADDR bytes = address.toIPv6Address();
        for (const quint8 byte : bytes.c)
            bits += qPopulationCount(byte);
    }
    return bits;
}

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

bool MacVpnBackend::recoverHostChanges()
{
    if (!journal.lock(JournalLockWaitMs))
        return false;
    adoptJournalState(journal.load());
    AtomicFile::removeTemporaries(host.hostsFile);
    if (journalState().isEmpty())
        return true;

    // Newest first, the reverse of the order in which a connect makes them;
    // a route only while it is still ours. What fails is kept for later.
    qInfo() << "[MacVpnBackend] undoing host changes left by an earlier run";
    retryPendingUndo();
    restoreDns();
    unpinControlPlaneHosts();
    QList<RouteEntry> routes(installedRoutes.crbegin(), installedRoutes.crend());
    for (auto it = controlPlaneBypassHosts.crbegin(); it != controlPlaneBypassHosts.crend(); ++it)
        routes.append({QStringLiteral("inet"), *it, QStringLiteral("-host"), physicalGateway});
    if (!serverRouteGateway.isEmpty())
        routes.append(
            {routeFamily(serverHost), serverHost, QStringLiteral("-host"), serverRouteGateway});
    for (const RouteEntry &route : std::as_const(routes)) {
        if (routeStillInstalled(route))
            deleteRouteOrKeep(route);
    }
    installedRoutes.clear();
    controlPlaneBypassHosts.clear();
    serverRouteGateway.clear();
    serverHost.clear();
    physicalGateway.clear();
    stopRecordedTunnel();
    killSwitchBlocking = firewallEngaged;
    flushDnsCache();
    saveJournal();
    qInfo() << "[MacVpnBackend] host changes of the earlier run undone"
            << (pendingUndo.isEmpty() ? "" : "but for some, kept to try again");
    return true;
}

// Someone else may have changed the routing table since: only a route that
// still goes where ours went, to the very destination and mask, is ours to
// delete. Asked for a route that is gone, route answers with the one that
// covers the destination now, the default route as likely as any.
bool MacVpnBackend::routeStillInstalled(const RouteEntry &route) const
{
    const bool ipv6 = route.family == QLatin1String("inet6");
    QStringList arguments = {QStringLiteral("-n"), QStringLiteral("get")};
    if (ipv6)
        arguments << QStringLiteral("-inet6");
    arguments << route.type << route.destination;
    QString answer;
    QString failure;
    const bool found = runRoute(arguments, &failure, &answer);
    const auto field = [&answer](const char *name) {
        return RouteReply::field(answer, QLatin1String(name));
    };
    const QString address = route.destination.section(QLatin1Char('/'), 0, 0);
    const bool network = route.type == QLatin1String("-net");
    const int prefix = route.destination.contains(QLatin1Char('/'))
                           ? route.destination.section(QLatin1Char('/'), 1).toInt()
                           : (ipv6 ? 128 : 32);
    const bool sameDestination =
        RouteReply::address(field("destination"), ipv6).isEqual(QHostAddress(address)) &&
        (network ? prefixOfMask(field("mask"), ipv6) == prefix : field("mask").isEmpty());
    const bool sameWay = QHostAddress(route.via).isNull()
                             ? field("interface") == route.via
                             : QHostAddress(field("gateway")).isEqual(QHostAddress(route.via));
    const bool ours = found && sameDestination && sameWay;
    if (!ours)
        qInfo() << "[MacVpnBackend] route no longer ours, left alone" << route.destination << "via"
                << route.via;
    return ours;
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
