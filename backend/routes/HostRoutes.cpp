#include "backend/routes/HostRoutes.h"

#include "backend/core/JournalValues.h"
#include "config/NetworkText.h"

#include <QCoreApplication>
#include <QDebug>
#include <QJsonArray>

namespace {

QString translated(const char *text)
{
    return QCoreApplication::translate("MacVpnBackend", text);
}

} // namespace

namespace {

// Of a long list, the first refusals are logged one by one; the count says the rest.
constexpr int RefusalsLogged = 20;

} // namespace

HostRoutes::HostRoutes(const MacHostEnvironment &host, Journal journal, QObject *parent)
    : QObject(parent), journal(std::move(journal)), socket(host), monitor(host)
{
    connect(&monitor, &RouteMonitor::settled, this,
            [this] { Q_EMIT settled(monitor.takeChanges()); });
}

QString HostRoutes::defaultGatewayOf(bool ipv6, QString *interfaceName)
{
    const std::optional<RoutingTable> table = readTable();
    const auto wayOut = table ? table->primaryDefault(ipv6, QString()) : std::nullopt;
    if (!wayOut)
        return QString();
    if (interfaceName)
        *interfaceName = wayOut->interface;
    return wayOut->gateway;
}

// The server must stay reachable outside the tunnel, or the tunnel would
// carry its own encrypted packets. Recorded before it is added; dropped
// again when the add fails, since a route that was there before us is not
// ours to delete. An IPv6 server goes by the IPv6 default route.
bool HostRoutes::addServerRoute(const QString &server, QString *error)
{
    serverHost = server;
    physicalGateway = defaultGatewayOf(false, &physicalInterface);
    QString serverInterface = physicalInterface;
    const QString serverGateway = NetworkText::isIpv6Route(serverHost)
                                      ? defaultGatewayOf(true, &serverInterface)
                                      : physicalGateway;
    if (serverHost.isEmpty() || serverGateway.isEmpty())
        return true;
    serverRouteGateway = serverGateway;
    serverRouteInterface = serverInterface;
    if (!journal.record()) {
        serverRouteGateway.clear();
        return false;
    }
    const QString failure = add(RouteEntry::to(serverHost, serverGateway));
    if (failure.isEmpty())
        return true;
    serverRouteGateway.clear();
    journal.save();
    *error = translated("Не удалось добавить маршрут до сервера: %1").arg(failure);
    return false;
}

// Recorded before the first is added.
QStringList HostRoutes::addBypass(const QStringList &addresses)
{
    if (physicalGateway.isEmpty()) {
        qWarning() << "[MacVpnBackend] control-plane bypass skipped: empty gateway";
        return {};
    }
    if (addresses.isEmpty())
        return {};
    controlPlaneBypassHosts = addresses;
    if (!journal.save()) {
        qWarning() << "[MacVpnBackend] control-plane bypass skipped: journal not written";
        controlPlaneBypassHosts.clear();
        return {};
    }
    QStringList added;
    for (const QString &address : addresses) {
        if (!add(RouteEntry::to(address, physicalGateway)).isEmpty())
            continue;
        added.append(address);
        qInfo() << "[MacVpnBackend] control-plane bypass" << address << "via" << physicalGateway;
    }
    controlPlaneBypassHosts = added;
    journal.save();
    return added;
}

void HostRoutes::removeBypass()
{
    QList<RouteEntry> bypass;
    for (const QString &address : std::as_const(controlPlaneBypassHosts))
        bypass.append(RouteEntry::to(address, physicalGateway));
    undo(bypass);
    controlPlaneBypassHosts.clear();
}

// All of them are recorded at once, before the first is added; those around
// the tunnel only while there is a gateway to go by. A route whose add fails
// is dropped from the record; when that failure stops the connect, so are
// the ones never tried.
bool HostRoutes::addRoutes(const QList<ConnectionPlan::Route> &planned, const QString &tunnel,
                           QString *error)
{
    tunnelInterface = tunnel;
    QList<ConnectionPlan::Route> adding;
    for (const ConnectionPlan::Route &route : planned) {
        if (route.intoTunnel || !physicalGateway.isEmpty())
            adding.append(route);
    }
    const qsizetype first = installedRoutes.size();
    for (const ConnectionPlan::Route &route : std::as_const(adding))
        installedRoutes.append(
            RouteEntry::to(route.destination, route.intoTunnel ? tunnel : physicalGateway));
    if (!journal.record()) {
        installedRoutes.resize(first);
        return false;
    }
    refusalsLogged = 0;
    qsizetype next = first;
    qsizetype refused = 0;
    qsizetype others = 0;
    for (const ConnectionPlan::Route &route : std::as_const(adding)) {
        const QString failure = add(installedRoutes[next]);
        if (failure.isEmpty()) {
            ++next;
            continue;
        }
        // Another program's route around the tunnel for the same
        // destination: not ours, and left to it. (One into the tunnel that
        // someone else holds fails the connect, as ever.) Recorded a moment
        // ago, it leaves the record with the phase's save below; should the
        // service die before, the start-up undo deletes it only if it still
        // goes our way.
        if (RoutingSocket::isThereAlready(failure) && !route.intoTunnel) {
            installedRoutes.removeAt(next);
            ++others;
            continue;
        }
        if (!route.failure) {
            installedRoutes.removeAt(next);
            ++refused;
            continue;
        }
        installedRoutes.resize(next);
        journal.save();
        *error = translated(route.failure).arg(failure);
        return false;
    }
    qInfo().noquote() << "[MacVpnBackend] routes added:" << next - first << "of" << adding.size()
                      << (others ? QStringLiteral("(%1 another program's already)").arg(others)
                                 : QString())
                      << (refused ? "(the others refused; none needed)" : "");
    journal.save();
    return true;
}

void HostRoutes::removeAll()
{
    QList<RouteEntry> removing(installedRoutes.crbegin(), installedRoutes.crend());
    for (auto it = controlPlaneBypassHosts.crbegin(); it != controlPlaneBypassHosts.crend(); ++it)
        removing.append(RouteEntry::to(*it, physicalGateway));
    // A server route that was there before us, or never added, is not ours to delete.
    if (!serverRouteGateway.isEmpty() && !serverHost.isEmpty())
        removing.append(RouteEntry::to(serverHost, serverRouteGateway));
    undo(removing);
    installedRoutes.clear();
    foreignRoutes.clear();
    controlPlaneBypassHosts.clear();
    serverRouteGateway.clear();
    serverRouteInterface.clear();
    serverHost.clear();
    physicalGateway.clear();
    tunnelInterface.clear();
}

QStringList HostRoutes::around() const
{
    QStringList destinations;
    for (const RouteEntry &route : installedRoutes) {
        if (route.via != tunnelInterface)
            destinations.append(route.destination);
    }
    return destinations;
}

QStringList HostRoutes::through() const
{
    QStringList destinations;
    for (const RouteEntry &route : installedRoutes) {
        if (route.via == tunnelInterface)
            destinations.append(route.destination);
    }
    return destinations;
}

QString HostRoutes::add(const RouteEntry &route)
{
    const QString failure = socket.add(route);
    if (!failure.isEmpty() && ++refusalsLogged <= RefusalsLogged)
        qWarning() << "[MacVpnBackend] route refused" << route.destination << "via" << route.via
                   << failure;
    return failure;
}

std::optional<RoutingTable> HostRoutes::readTable()
{
    RoutingTable table;
    if (socket.read(&table))
        return table;
    qWarning() << "[MacVpnBackend] the routing table could not be read";
    return std::nullopt;
}

// Ours while it goes where ours went: by the same gateway, or through an
// interface our recorded tunnel program still holds. Another VPN may have
// routes where ours were, through a utun of the number ours had.
bool HostRoutes::routeIsOurs(const RouteEntry &route, const RoutingTable &table) const
{
    if (route.throughInterface() && !journal.tunnelHolds(route.via))
        return false;
    return table.contains(route.destination, route.via);
}

// Empty when done or no longer ours, else the error.
QString HostRoutes::undo(const RouteEntry &route, const std::optional<RoutingTable> &table)
{
    if (!table)
        return translated("не удалось прочитать таблицу маршрутов");
    if (!routeIsOurs(route, *table)) {
        if (++refusalsLogged <= RefusalsLogged)
            qInfo() << "[MacVpnBackend] route no longer ours, left alone" << route.destination
                    << "via" << route.via;
        return QString();
    }
    const QString failure = socket.remove(route);
    if (failure.isEmpty() || RoutingSocket::isNotInTable(failure))
        return QString();
    if (++refusalsLogged <= RefusalsLogged)
        qWarning() << "[MacVpnBackend] route not removed" << route.destination << failure;
    return failure;
}

// Newest first; one that will not go is kept.
void HostRoutes::undo(const QList<RouteEntry> &routes)
{
    if (routes.isEmpty())
        return;
    refusalsLogged = 0;
    const std::optional<RoutingTable> table = readTable();
    const qsizetype before = pending.size();
    for (const RouteEntry &route : routes) {
        if (const QString error = undo(route, table); !error.isEmpty())
            pending.append({route, error});
    }
    qInfo() << "[MacVpnBackend] routes undone:" << routes.size() - (pending.size() - before) << "of"
            << routes.size();
}

void HostRoutes::retryPending()
{
    if (pending.isEmpty())
        return;
    refusalsLogged = 0;
    const std::optional<RoutingTable> table = readTable();
    for (Pending &step : pending)
        step.error = undo(step.route, table);
    pending.removeIf([](const Pending &step) { return step.error.isEmpty(); });
}

QVariantList HostRoutes::pendingSteps() const
{
    QVariantList steps;
    for (const Pending &step : pending)
        steps.append(QVariantMap{
            {QStringLiteral("what"), translated("маршрут %1").arg(step.route.destination)},
            {QStringLiteral("error"), step.error}});
    return steps;
}

void HostRoutes::write(QJsonObject *session, QJsonObject *) const
{
    QJsonObject record;
    if (!controlPlaneBypassHosts.isEmpty()) {
        record.insert(QStringLiteral("gateway"), physicalGateway);
        record.insert(QStringLiteral("bypass"),
                      QJsonArray::fromStringList(controlPlaneBypassHosts));
    }
    if (!serverRouteGateway.isEmpty())
        record.insert(QStringLiteral("server"),
                      QJsonObject{{QStringLiteral("host"), serverHost},
                                  {QStringLiteral("via"), serverRouteGateway}});
    if (!installedRoutes.isEmpty())
        record.insert(QStringLiteral("installed"), RouteEntry::toRuns(installedRoutes));
    QJsonArray failed;
    for (const Pending &step : pending)
        failed.append(QJsonObject{{QStringLiteral("destination"), step.route.destination},
                                  {QStringLiteral("via"), step.route.via},
                                  {QStringLiteral("error"), step.error}});
    if (!failed.isEmpty())
        record.insert(QStringLiteral("pending"), failed);
    if (!record.isEmpty())
        session->insert(QStringLiteral("routes"), record);
}

void HostRoutes::read(const QJsonObject &session, const QJsonObject &)
{
    const QJsonObject record = session.value(QLatin1String("routes")).toObject();
    const QString gateway = record.value(QLatin1String("gateway")).toString();
    for (const QJsonValue &value : record.value(QLatin1String("bypass")).toArray()) {
        if (NetworkText::isAddress(gateway) && NetworkText::isAddress(value.toString()) &&
            NetworkText::isIpv4Route(value.toString())) {
            physicalGateway = gateway;
            controlPlaneBypassHosts.append(value.toString());
        } else {
            JournalValues::ignored("bypass route", value);
        }
    }
    const QJsonObject server = record.value(QLatin1String("server")).toObject();
    const QString serverVia = server.value(QLatin1String("via")).toString();
    if (NetworkText::isAddress(server.value(QLatin1String("host")).toString()) &&
        NetworkText::isAddress(serverVia)) {
        serverHost = server.value(QLatin1String("host")).toString();
        serverRouteGateway = serverVia;
    } else if (record.contains(QLatin1String("server"))) {
        JournalValues::ignored("serverRoute", server);
    }
    installedRoutes = RouteEntry::fromRuns(record.value(QLatin1String("installed")).toArray());
    for (const QJsonValue &value : record.value(QLatin1String("pending")).toArray()) {
        const QJsonObject step = value.toObject();
        if (const auto route =
                RouteEntry::checked(step.value(QLatin1String("destination")).toString(),
                                    step.value(QLatin1String("via")).toString()))
            pending.append({*route, step.value(QLatin1String("error")).toString()});
        else
            JournalValues::ignored("route", value);
    }
}
