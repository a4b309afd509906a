#include "backend/routes/HostRoutes.h"

#include "backend/BackendConstants.h"
#include "backend/core/CommandRunner.h"
#include "backend/core/JournalValues.h"
#include "backend/routes/RouteReply.h"
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

HostRoutes::HostRoutes(const MacHostEnvironment &host, Journal journal, QObject *parent)
    : QObject(parent), host(host), journal(std::move(journal))
{
    connect(&monitor, &RouteMonitor::settled, this, [this] { Q_EMIT settled(monitor.takeChanges()); });
}

QString HostRoutes::defaultGatewayOf(bool ipv6, QString *interfaceName) const
{
    QString output;
    QString failure;
    QStringList arguments = {QStringLiteral("-n"), QStringLiteral("get")};
    if (ipv6)
        arguments << QStringLiteral("-inet6");
    arguments << QStringLiteral("default");
    if (!runRoute(arguments, &failure, &output))
        return QString();
    QString gateway;
    for (const QString &rawLine : output.split(QLatin1Char('\n'))) {
        const QString line = rawLine.trimmed();
        const QString value = line.mid(line.indexOf(QLatin1Char(':')) + 1).trimmed();
        if (line.startsWith(QLatin1String("gateway:")) && gateway.isEmpty())
            gateway = value;
        else if (line.startsWith(QLatin1String("interface:")) && interfaceName)
            *interfaceName = value;
    }
    return gateway;
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
    QString failure;
    if (runRoute(addArguments(RouteEntry::to(serverHost, serverGateway)), &failure))
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
        QString failure;
        if (!runRoute(addArguments(RouteEntry::to(address, physicalGateway)), &failure)) {
            qWarning() << "[MacVpnBackend] control-plane route failed" << address << failure;
            continue;
        }
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
    qsizetype next = first;
    for (const ConnectionPlan::Route &route : std::as_const(adding)) {
        // A route that was there before ours is not ours: "File exists".
        QString failure;
        if (runRoute(addArguments(installedRoutes[next]), &failure)) {
            ++next;
            continue;
        }
        if (!route.failure) {
            installedRoutes.removeAt(next);
            continue;
        }
        installedRoutes.resize(next);
        journal.save();
        *error = translated(route.failure).arg(failure);
        return false;
    }
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

QStringList HostRoutes::addArguments(const RouteEntry &route) const
{
    QStringList arguments = {QStringLiteral("-n"), QStringLiteral("add")};
    if (route.family == QLatin1String("inet6"))
        arguments << QStringLiteral("-inet6");
    arguments << route.type << route.destination;
    if (!route.via.isEmpty() && route.via == tunnelInterface)
        arguments << QStringLiteral("-interface");
    return arguments << route.via;
}

bool HostRoutes::runRoute(const QStringList &arguments, QString *failure, QString *answer) const
{
    QString output;
    QString error;
    const bool exited = CommandRunner::run(host.routeTool, arguments, QByteArray(), &output, &error,
                                           CommandTimeoutMs);
    const bool change =
        arguments.contains(QLatin1String("add")) || arguments.contains(QLatin1String("delete"));
    *failure = RouteReply::failure(change, exited, output, error);
    if (answer)
        *answer = output;
    if (failure->isEmpty())
        return true;
    if (exited)
        qWarning() << "[MacVpnBackend] route refused" << arguments << *failure;
    return false;
}

// Read without a word on the routing socket, unlike "route get".
RoutingTable HostRoutes::readTable(bool ipv6) const
{
    QString output;
    CommandRunner::run(host.netstatTool,
                       {QStringLiteral("-rn"), QStringLiteral("-f"),
                        ipv6 ? QStringLiteral("inet6") : QStringLiteral("inet")},
                       QByteArray(), &output, nullptr, CommandTimeoutMs);
    return RoutingTable::parse(output);
}

HostRoutes::Tables HostRoutes::readTables() const
{
    Tables tables;
    QString inet;
    QString inet6;
    const auto read = [this](const char *family, QString *output) {
        return CommandRunner::run(host.netstatTool,
                                  {QStringLiteral("-rn"), QStringLiteral("-f"), QLatin1String(family)},
                                  QByteArray(), output, nullptr, CommandTimeoutMs);
    };
    tables.read = read("inet", &inet) && read("inet6", &inet6);
    tables.inet = RoutingTable::parse(inet);
    tables.inet6 = RoutingTable::parse(inet6);
    return tables;
}

// Ours while it goes where ours went: by the same gateway, or through an
// interface our recorded tunnel program still holds. Another VPN may have
// routes where ours were, through a utun of the number ours had.
bool HostRoutes::routeIsOurs(const RouteEntry &route, const Tables &tables) const
{
    if (route.throughInterface() && !journal.tunnelHolds(route.via))
        return false;
    return (route.family == QLatin1String("inet6") ? tables.inet6 : tables.inet)
        .contains(route.destination, route.via);
}

// Empty when done or no longer ours, else the error.
QString HostRoutes::undo(const RouteEntry &route, const Tables &tables) const
{
    if (!tables.read)
        return translated("не удалось прочитать таблицу маршрутов");
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

// Newest first; one that will not go is kept.
void HostRoutes::undo(const QList<RouteEntry> &routes)
{
    if (routes.isEmpty())
        return;
    const Tables tables = readTables();
    for (const RouteEntry &route : routes) {
        if (const QString error = undo(route, tables); !error.isEmpty())
            pending.append({route, error});
    }
}

void HostRoutes::retryPending()
{
    if (pending.isEmpty())
        return;
    const Tables tables = readTables();
    for (Pending &step : pending)
        step.error = undo(step.route, tables);
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
        record.insert(QStringLiteral("bypass"), QJsonArray::fromStringList(controlPlaneBypassHosts));
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
        if (const auto route = RouteEntry::checked(step.value(QLatin1String("destination")).toString(),
                                                   step.value(QLatin1String("via")).toString()))
            pending.append({*route, step.value(QLatin1String("error")).toString()});
        else
            JournalValues::ignored("route", value);
    }
}
