// Keeping the routes around the tunnel right when the Mac changes network.
#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"

#include <QDebug>

void MacVpnBackend::followNetworkChange()
{
    if (currentStatus != Connected)
        return;
    QString leavesBy;
    const QString gateway = defaultGatewayOf(false, &leavesBy);
    // No network, or a default route into our own tunnel: the routes stay as
    // they are until a physical gateway comes back.
    if (gateway.isEmpty() || leavesBy == tunnelInterface)
        qInfo() << "[MacVpnBackend] no default gateway outside the tunnel; routes kept";
    else if (gateway != physicalGateway)
        moveGatewayRoutes(gateway);
    if (!vpnDnsServers.isEmpty())
        configureDnsOnNewServices();
}

// The server, bypass and exclusion routes go by the physical gateway: each is
// deleted and added again by the new one, and recorded like any other change.
// An IPv6 server goes by the IPv6 default route and moves with that.
void MacVpnBackend::moveGatewayRoutes(const QString &gateway)
{
    qInfo() << "[MacVpnBackend] default gateway changed" << physicalGateway << "->" << gateway;
    const bool ipv6Server = routeFamily(serverHost) == QLatin1String("inet6");
    const QString serverGateway = ipv6Server ? defaultGatewayOf(true) : gateway;
    QList<RouteEntry> moving;
    if (!serverHost.isEmpty() && !serverGateway.isEmpty() && serverGateway != serverRouteGateway)
        moving.append(
            {routeFamily(serverHost), serverHost, QStringLiteral("-host"), serverGateway});
    for (const QString &address : std::as_const(controlPlaneBypassHosts))
        moving.append({QStringLiteral("inet"), address, QStringLiteral("-host"), gateway});
    for (const RouteEntry &route : std::as_const(installedRoutes)) {
        if (!physicalGateway.isEmpty() && route.via == physicalGateway)
            moving.append({route.family, route.destination, route.type, gateway});
    }

    // Gone first; one that left with the old network fails to delete, harmlessly.
    for (const RouteEntry &route : std::as_const(moving)) {
        if (route.destination != serverHost || !serverRouteGateway.isEmpty())
            deleteRoute(route);
    }
    for (RouteEntry &route : installedRoutes) {
        if (!physicalGateway.isEmpty() && route.via == physicalGateway)
            route.via = gateway;
    }
    physicalGateway = gateway;
    if (!moving.isEmpty() && moving.front().destination == serverHost)
        serverRouteGateway = serverGateway;
    saveJournal();

    for (const RouteEntry &route : std::as_const(moving)) {
        QString standardError;
        if (runCommand(host.routeTool, routeAddArguments(route), nullptr, &standardError,
                       CommandTimeoutMs))
            continue;
        // Not added, so not ours: dropped from the record.
        qWarning() << "[MacVpnBackend] route not moved" << route.destination
                   << standardError.trimmed();
        if (route.destination == serverHost)
            serverRouteGateway.clear();
        controlPlaneBypassHosts.removeAll(route.destination);
        installedRoutes.erase(std::remove_if(installedRoutes.begin(), installedRoutes.end(),
                                             [&route](const RouteEntry &entry) {
                                                 return entry.destination == route.destination &&
                                                        entry.via == route.via;
                                             }),
                              installedRoutes.end());
    }
    saveJournal();
}
