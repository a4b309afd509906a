// The undo of every host change, whenever it runs: a disconnect, the clean-up
// before a connect, a retry of what failed, the start after a crash. A step
// is undone only while what it undoes is still the service's: another VPN
// may have routes where ours were, through a utun of the number ours had; the
// user may have chosen DNS servers of their own. What is no longer ours is
// dropped from the record, with a log line, and left as it is.
#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"
#include "backend/core/ProcessIdentity.h"
#include "backend/host/RouteReply.h"

#include <QDebug>

MacVpnBackend::RouteTables MacVpnBackend::readRouteTables() const
{
    RouteTables tables;
    QString inet;
    QString inet6;
    const auto read = [this](const char *family, QString *output) {
        return runCommand(host.netstatTool,
                          {QStringLiteral("-rn"), QStringLiteral("-f"), QLatin1String(family)},
                          output, nullptr, CommandTimeoutMs);
    };
    tables.read = read("inet", &inet) && read("inet6", &inet6);
    tables.inet = RoutingTable::parse(inet);
    tables.inet6 = RoutingTable::parse(inet6);
    return tables;
}

// A utun goes away with the program that opened it, and the kernel takes its
// routes with it; a utun of the same number later is someone else's.
bool MacVpnBackend::tunnelHolds(const QString &interfaceName) const
{
    return !interfaceName.isEmpty() && interfaceName == tunnelInterface && tunnelPid > 0 &&
           ProcessIdentity::of(tunnelPid) == tunnelIdentity;
}

bool MacVpnBackend::routeIsOurs(const RouteEntry &route, const RouteTables &tables) const
{
    if (route.throughInterface() && !tunnelHolds(route.via))
        return false;
    return (route.family == QLatin1String("inet6") ? tables.inet6 : tables.inet)
        .contains(route.destination, route.via);
}

QString MacVpnBackend::undoRoute(const RouteEntry &route, const RouteTables &tables) const
{
    if (!tables.read)
        return tr("не удалось прочитать таблицу маршрутов");
    if (!routeIsOurs(route, tables)) {
        qInfo() << "[MacVpnBackend] route no longer ours, left alone" << route.destination << "via"
                << route.via;
        return QString();
    }
    QStringList arguments = {QStringLiteral("-n"), QStringLiteral("delete")};
    if (route.family == QLatin1String("inet6"))
        arguments << QStringLiteral("-inet6");
    arguments << route.type << route.destination;
    QString failure;
    if (runRoute(arguments, &failure) || RouteReply::isNotInTable(failure))
        return QString();
    return failure;
}

void MacVpnBackend::undoRoutes(const QList<RouteEntry> &routes)
{
    if (routes.isEmpty())
        return;
    const RouteTables tables = readRouteTables();
    for (const RouteEntry &route : routes) {
        if (const QString error = undoRoute(route, tables); !error.isEmpty())
            pendingUndo.routes.append({route, error});
    }
}

// The servers go back only while they are still the tunnel's: servers the
// user (or the system) chose since are theirs.
QString MacVpnBackend::undoDns(const QString &service, const QStringList &servers,
                               const QStringList &tunnel) const
{
    QString current;
    QString error;
    const bool read = runCommand(host.networksetupTool, {QStringLiteral("-getdnsservers"), service},
                                 &current, &error, CommandTimeoutMs);
    const QString said = (current + QLatin1Char('\n') + error).trimmed();
    if (said.contains(QLatin1String("is not a recognized network service"))) {
        qInfo() << "[MacVpnBackend] network service gone, nothing to put back" << service;
        return QString();
    }
    if (!read)
        return said.isEmpty() ? QStringLiteral("networksetup failed") : said;
    QStringList now = current.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    if (now.size() == 1 && now.front().startsWith(QLatin1String("There aren't any DNS Servers")))
        now.clear();
    if (now != tunnel) {
        qInfo() << "[MacVpnBackend] DNS servers of" << service
                << "changed since; left as they are:" << now;
        return QString();
    }
    return setDnsServers(service, servers);
}

void MacVpnBackend::retryPendingUndo()
{
    if (pendingUndo.isEmpty())
        return;
    qInfo() << "[MacVpnBackend] trying again what could not be undone";
    for (auto it = pendingUndo.dns.begin(); it != pendingUndo.dns.end();) {
        it->error = undoDns(it.key(), it->servers, it->tunnel);
        it = it->error.isEmpty() ? pendingUndo.dns.erase(it) : std::next(it);
    }
    if (!pendingUndo.hostsBlock.isEmpty()) {
        pendingUndo.hostsBlock = removeHostsBlock();
        hostsPinned = !pendingUndo.hostsBlock.isEmpty();
    }
    if (!pendingUndo.firewall.isEmpty() && !blockWanted())
        pendingUndo.firewall = firewall.lift();
    else
        pendingUndo.firewall.clear();
    if (!pendingUndo.routes.isEmpty()) {
        const RouteTables tables = readRouteTables();
        for (PendingUndo::Route &pending : pendingUndo.routes)
            pending.error = undoRoute(pending.route, tables);
        pendingUndo.routes.removeIf(
            [](const PendingUndo::Route &pending) { return pending.error.isEmpty(); });
    }
    saveJournal();
}

void MacVpnBackend::retryPendingWhileIdle()
{
    if (connectRunning || currentStatus == Connected)
        return;
    const QString before = pendingUndo.message(host.hostsFile);
    retryPendingUndo();
    if (!pendingUndo.isEmpty()) {
        // What is left now, unless the user is reading about a failed connect.
        if (lastErrorMessage == before || currentStatus != Error)
            setError(pendingUndo.message(host.hostsFile));
        pendingUndo.schedule(false);
    } else if (currentStatus == Error && lastErrorMessage == before) {
        qInfo() << "[MacVpnBackend] everything undone at last";
        setError(QString());
        setStatus(Disconnected);
    }
}
