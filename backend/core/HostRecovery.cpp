// Undoing, at start-up, what an earlier run of the service left on the host.
#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"
#include "backend/core/ProcessIdentity.h"

#include <QDebug>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QThread>

#include <csignal>

namespace {

// An older instance that is handing over finishes its own undo first.
constexpr int JournalLockWaitMs = 30000;
constexpr int RecordedTunnelStopMs = 5000;

QString field(const QString &output, const QString &name)
{
    const QStringList lines = output.split(QLatin1Char('\n'));
    for (const QString &line : lines) {
        const QString trimmed = line.trimmed();
        if (trimmed.startsWith(name + QLatin1Char(':')))
            return trimmed.mid(name.size() + 1).trimmed();
    }
    return QString();
}

bool sameAddress(const QString &a, const QString &b)
{
    const QHostAddress left(a);
    return !left.isNull() && left.isEqual(QHostAddress(b));
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
    if (journalState().isEmpty())
        return true;

    // Newest first, the reverse of the order in which a connect makes them.
    qInfo() << "[MacVpnBackend] undoing host changes left by an earlier run";
    restoreDns();
    for (auto it = installedRoutes.crbegin(); it != installedRoutes.crend(); ++it) {
        if (routeStillInstalled(*it))
            deleteRoute(*it);
    }
    installedRoutes.clear();
    if (hostsPinned)
        unpinControlPlaneHosts();
    hostsPinned = false;
    for (auto it = controlPlaneBypassHosts.crbegin(); it != controlPlaneBypassHosts.crend(); ++it) {
        const RouteEntry bypass{QStringLiteral("inet"), *it, QStringLiteral("-host"),
                                physicalGateway};
        if (routeStillInstalled(bypass))
            deleteRoute(bypass);
    }
    controlPlaneBypassHosts.clear();
    if (!serverRouteGateway.isEmpty()) {
        const RouteEntry server{routeFamily(serverHost), serverHost, QStringLiteral("-host"),
                                serverRouteGateway};
        if (routeStillInstalled(server))
            deleteRoute(server);
    }
    serverRouteGateway.clear();
    serverHost.clear();
    physicalGateway.clear();
    stopRecordedTunnel();
    flushDnsCache();
    saveJournal();
    qInfo() << "[MacVpnBackend] host changes of the earlier run undone";
    return true;
}

// Someone else may have changed the routing table since: only a route that
// still goes where ours went is ours to delete.
bool MacVpnBackend::routeStillInstalled(const RouteEntry &route) const
{
    QStringList arguments = {QStringLiteral("-n"), QStringLiteral("get")};
    if (route.family == QLatin1String("inet6"))
        arguments << QStringLiteral("-inet6");
    arguments << route.type << route.destination;
    QString output;
    const bool found = runCommand(host.routeTool, arguments, &output, nullptr, CommandTimeoutMs);
    const QString address = route.destination.section(QLatin1Char('/'), 0, 0);
    const bool ours = found && sameAddress(field(output, QStringLiteral("destination")), address) &&
                      (QHostAddress(route.via).isNull()
                           ? field(output, QStringLiteral("interface")) == route.via
                           : sameAddress(field(output, QStringLiteral("gateway")), route.via));
    if (!ours)
        qInfo() << "[MacVpnBackend] route no longer ours, left alone" << route.destination << "via"
                << route.via;
    return ours;
}

void MacVpnBackend::deleteRoute(const RouteEntry &route)
{
    QStringList arguments = {QStringLiteral("-n"), QStringLiteral("delete")};
    if (route.family == QLatin1String("inet6"))
        arguments << QStringLiteral("-inet6");
    arguments << (route.type.isEmpty() ? QStringLiteral("-net") : route.type) << route.destination;
    runCommand(host.routeTool, arguments, nullptr, nullptr, CommandTimeoutMs);
}

// The program is not our child any more: it is stopped by its pid, and only
// while that pid still belongs to the very process we started.
void MacVpnBackend::stopRecordedTunnel()
{
    if (tunnelPid <= 0)
        return;
    const auto pid = pid_t(tunnelPid);
    if (ProcessIdentity::of(tunnelPid) != tunnelIdentity) {
        qInfo() << "[MacVpnBackend] tunnel program of the earlier run is gone" << tunnelPid;
    } else {
        qInfo() << "[MacVpnBackend] stopping tunnel program of the earlier run" << tunnelPid;
        ::kill(pid, SIGTERM);
        if (!waitUntilGone(tunnelPid, tunnelIdentity, RecordedTunnelStopMs)) {
            ::kill(pid, SIGKILL);
            waitUntilGone(tunnelPid, tunnelIdentity, RecordedTunnelStopMs);
        }
    }
    tunnelPid = 0;
    tunnelIdentity.clear();
}
