#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"

#include <QDebug>

namespace {

const QString Add = QStringLiteral("add");
const QString NumericFlag = QStringLiteral("-n");
const QString Inet6Flag = QStringLiteral("-inet6");
const QString NetType = QStringLiteral("-net");
const QString InterfaceFlag = QStringLiteral("-interface");

} // namespace

bool MacVpnBackend::configureRoutes(const ParsedVpnConfig &config)
{
    serverHost = endpointHost(config);
    const QString gateway = defaultGatewayOf(false, &physicalInterface);
    physicalGateway = gateway;
    const bool splitActive =
        splitTunnel.enabled && (splitTunnel.mode == 1 || splitTunnel.mode == 2);
    const QStringList splitRoutes = splitActive ? splitTunnelRoutes() : QStringList();
    const bool splitPresent = splitActive && !splitRoutes.isEmpty();

    qInfo() << "[MacVpnBackend] configureRoutes"
            << "endpoint=" << serverHost << "gateway=" << gateway
            << "allowedIps=" << allowedIps(config) << "splitEnabled=" << splitPresent
            << "splitMode=" << splitTunnel.mode << "splitRoutes=" << splitRoutes;

    // The server must stay reachable outside the tunnel, or the tunnel would
    // carry its own encrypted packets. Recorded before it is added; dropped
    // again when the add fails, since a route that was there before us is not
    // ours to delete. An IPv6 server goes by the IPv6 default route.
    const bool ipv6Server = routeFamily(serverHost) == QLatin1String("inet6");
    QString serverInterface = physicalInterface;
    const QString serverGateway = ipv6Server ? defaultGatewayOf(true, &serverInterface) : gateway;
    if (!serverHost.isEmpty() && !serverGateway.isEmpty()) {
        serverRouteGateway = serverGateway;
        serverRouteInterface = serverInterface;
        if (!recordHostChange()) {
            serverRouteGateway.clear();
            return false;
        }
        const RouteEntry server{routeFamily(serverHost), serverHost, QStringLiteral("-host"),
                                serverGateway};
        QString failure;
        if (!runRoute(routeAddArguments(server), &failure)) {
            serverRouteGateway.clear();
            saveJournal();
            setError(tr("Не удалось добавить маршрут до сервера: %1").arg(failure));
            return false;
        }
    }

    installControlPlaneBypass(gateway);

    QList<PlannedRoute> planned;
    if (splitActive && splitTunnel.mode == 1) {
        for (const QString &route : splitRoutes)
            planned.append(
                {{routeFamily(route), route, routeType(route), tunnelInterface},
                 QT_TR_NOOP("Не удалось добавить маршрут раздельного туннелирования: %1")});
        return addRoutes(planned);
    }

    // Full tunnelling uses two half routes per family, which win over the
    // default route by being more specific without replacing it. Every other
    // range goes by its own family, whatever character it begins with.
    const QStringList allowed = allowedIps(config);
    const bool allIpv4 = allowed.contains(QLatin1String("0.0.0.0/0"));
    const bool allIpv6 = allowed.contains(QLatin1String("::/0"));
    if (allIpv4) {
        for (const QString &half : {QStringLiteral("0.0.0.0/1"), QStringLiteral("128.0.0.0/1")})
            planned.append({{QStringLiteral("inet"), half, NetType, tunnelInterface},
                            QT_TR_NOOP("Не удалось добавить IPv4 маршрут: %1")});
    }
    for (const QString &range : allowed) {
        if (isIpv4Route(range) && !allIpv4)
            planned.append({{QStringLiteral("inet"), range, routeType(range), tunnelInterface},
                            QT_TR_NOOP("Не удалось добавить IPv4 маршрут: %1")});
        else if (isIpv6Route(range) && !allIpv6)
            planned.append({{QStringLiteral("inet6"), range, routeType(range), tunnelInterface},
                            QT_TR_NOOP("Не удалось добавить IPv6 маршрут: %1")});
    }
    if (allIpv6) {
        // A failed IPv6 half does not stop the connect.
        for (const QString &half : {QStringLiteral("::/1"), QStringLiteral("8000::/1")})
            planned.append({{QStringLiteral("inet6"), half, NetType, tunnelInterface}, nullptr});
    }

    if (splitPresent && splitTunnel.mode == 2 && !gateway.isEmpty()) {
        for (const QString &route : splitRoutes)
            planned.append(
                {{QStringLiteral("inet"), route, routeType(route), gateway},
                 QT_TR_NOOP("Не удалось добавить исключение раздельного туннелирования: %1")});
    }
    return addRoutes(planned);
}

// All of them are recorded at once, before the first is added. A route whose
// add fails is dropped from the record; when that failure stops the connect,
// so are the ones never tried.
bool MacVpnBackend::addRoutes(const QList<PlannedRoute> &planned)
{
    const qsizetype first = installedRoutes.size();
    for (const PlannedRoute &route : planned)
        installedRoutes.append(route.entry);
    if (!recordHostChange()) {
        installedRoutes.resize(first);
        return false;
    }
    qsizetype next = first;
    for (const PlannedRoute &route : planned) {
        // A route that was there before ours is not ours: "File exists".
        QString failure;
        if (runRoute(routeAddArguments(route.entry), &failure)) {
            ++next;
            continue;
        }
        if (!route.failureMessage) {
            installedRoutes.removeAt(next);
            continue;
        }
        installedRoutes.resize(next);
        saveJournal();
        setError(tr(route.failureMessage).arg(failure));
        return false;
    }
    saveJournal();
    return true;
}

QStringList MacVpnBackend::routeAddArguments(const RouteEntry &route) const
{
    QStringList arguments = {NumericFlag, Add};
    if (route.family == QLatin1String("inet6"))
        arguments << Inet6Flag;
    arguments << route.type << route.destination;
    if (!route.via.isEmpty() && route.via == tunnelInterface)
        arguments << InterfaceFlag;
    return arguments << route.via;
}
