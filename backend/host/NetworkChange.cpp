// Keeping the routes around the tunnel right when the Mac changes network.
#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"

#include <QDebug>
#include <QHostAddress>

void MacVpnBackend::followNetworkChange()
{
    const RouteMonitor::Changes changes = routeMonitor.takeChanges();
    // A new network, or a wake: whoever else was at work meanwhile may have
    // disabled pf or replaced its rules.
    if (changes.wayOut && firewall.isEngaged())
        firewall.verify();
    if (currentStatus != Connected)
        return;
    bool touched = false;
    for (const bool ipv6 : {false, true}) {
        for (const RouteEntry &route : routesAroundTunnel(ipv6)) {
            const QHostAddress ours(route.destination.section(QLatin1Char('/'), 0, 0));
            for (const QString &destination : changes.touched)
                touched = touched || ours.isEqual(QHostAddress(destination));
        }
    }
    if (!changes.wayOut && !touched)
        return;

    // Each family by its own default route: an IPv6 server follows the IPv6 one.
    for (const bool ipv6 : {false, true}) {
        const QList<RouteEntry> around = routesAroundTunnel(ipv6);
        if (around.isEmpty())
            continue;
        const RoutingTable table = readRoutingTable(ipv6);
        // No network, or a default route into our own tunnel: the routes stay
        // as they are until a physical gateway comes back.
        const auto wayOut = table.primaryDefault(tunnelInterface);
        const QString gateway = ipv6 ? serverRouteGateway : physicalGateway;
        const QString interfaceName = ipv6 ? serverRouteInterface : physicalInterface;
        if (!wayOut)
            qInfo() << "[MacVpnBackend] no default gateway outside the tunnel; routes kept"
                    << (ipv6 ? "inet6" : "inet");
        else if (wayOut->gateway != gateway || wayOut->interface != interfaceName)
            moveGatewayRoutes(ipv6, *wayOut);
        else
            restoreMissingRoutes(ipv6, table);
    }
    if (changes.wayOut && !vpnDnsServers.isEmpty())
        configureDnsOnNewServices();
}

QList<MacVpnBackend::RouteEntry> MacVpnBackend::routesAroundTunnel(bool ipv6) const
{
    const QString family = ipv6 ? QStringLiteral("inet6") : QStringLiteral("inet");
    QList<RouteEntry> around;
    if (!serverRouteGateway.isEmpty() && routeFamily(serverHost) == family)
        around.append({family, serverHost, QStringLiteral("-host"), serverRouteGateway});
    if (ipv6)
        return around;
    for (const QString &address : controlPlaneBypassHosts)
        around.append({family, address, QStringLiteral("-host"), physicalGateway});
    for (const RouteEntry &route : installedRoutes) {
        if (route.via != tunnelInterface)
            around.append(route);
    }
    return around;
}

// The routes around the tunnel are deleted, recorded by the new gateway and
// added again by it. Recorded before they are added, so that the journal
// always names the gateway they may go by; not added when that record fails.
void MacVpnBackend::moveGatewayRoutes(bool ipv6, const RoutingTable::Route &wayOut)
{
    QString &gateway = ipv6 ? serverRouteGateway : physicalGateway;
    QString &interfaceName = ipv6 ? serverRouteInterface : physicalInterface;
    qInfo() << "[MacVpnBackend] default gateway changed" << gateway << "->" << wayOut.gateway
            << "on" << wayOut.interface;
    // Gone first; one that left with the old network is gone already. One
    // that will not go is kept for the undo, whatever becomes of its move.
    undoRoutes(routesAroundTunnel(ipv6));

    const QString previous = gateway;
    gateway = wayOut.gateway;
    interfaceName = wayOut.interface;
    if (!ipv6 && routeFamily(serverHost) == QLatin1String("inet") && !serverRouteGateway.isEmpty())
        serverRouteGateway = wayOut.gateway;
    for (RouteEntry &route : installedRoutes) {
        if (!ipv6 && route.via == previous)
            route.via = wayOut.gateway;
    }
    if (!saveJournal()) {
        qWarning() << "[MacVpnBackend] routes not moved: the journal cannot record them";
        return;
    }

    for (const RouteEntry &route : routesAroundTunnel(ipv6)) {
        QString failure;
        if (runRoute(routeAddArguments(route), &failure))
            continue;
        // Not added, so not ours: dropped from the record.
        qWarning() << "[MacVpnBackend] route not moved" << route.destination << failure;
        if (route.destination == serverHost)
            serverRouteGateway.clear();
        controlPlaneBypassHosts.removeAll(route.destination);
        installedRoutes.removeIf([&route](const RouteEntry &entry) {
            return entry.destination == route.destination && entry.via == route.via;
        });
    }
    saveJournal();
}

// The same way out, but a link that went away took its routes with it (a
// Wi-Fi drop and rejoin, or a cable to the same router): ours come back.
void MacVpnBackend::restoreMissingRoutes(bool ipv6, const RoutingTable &table)
{
    for (const RouteEntry &route : routesAroundTunnel(ipv6)) {
        if (table.contains(route.destination, route.via))
            continue;
        QString failure;
        if (runRoute(routeAddArguments(route), &failure))
            qInfo() << "[MacVpnBackend] route added again" << route.destination << "via"
                    << route.via;
        else
            qWarning() << "[MacVpnBackend] route not added again" << route.destination << failure;
    }
}
