// Keeping the routes around the tunnel right when the Mac changes network.
#include "backend/routes/HostRoutes.h"

#include "backend/routes/ForeignRoutes.h"
#include "config/NetworkText.h"

#include <QDebug>
#include <QHostAddress>

void HostRoutes::watch(bool watching)
{
    if (watching && !monitor.isRunning())
        monitor.start();
    else if (!watching)
        monitor.stop();
}

bool HostRoutes::follow(const RouteMonitor::Changes &changes)
{
    bool touched = false;
    for (const bool ipv6 : {false, true}) {
        for (const RouteEntry &route : aroundTunnel(ipv6)) {
            const QHostAddress ours(route.destination.section(QLatin1Char('/'), 0, 0));
            for (const QString &destination : changes.touched)
                touched = touched || ours.isEqual(QHostAddress(destination));
        }
    }
    if (!changes.wayOut && !touched && !changes.added)
        return false;

    // Each family by its own default route: an IPv6 server follows the IPv6 one.
    const std::optional<RoutingTable> table = readTable();
    if (table)
        noticeForeign(*table);
    for (const bool ipv6 : {false, true}) {
        if (aroundTunnel(ipv6).isEmpty() || !table)
            continue;
        // No network, or a default route into our own tunnel: the routes stay
        // as they are until a physical gateway comes back.
        const auto wayOut = table->primaryDefault(ipv6, tunnelInterface);
        const QString gateway = ipv6 ? serverRouteGateway : physicalGateway;
        const QString interfaceName = ipv6 ? serverRouteInterface : physicalInterface;
        if (!wayOut)
            qInfo() << "[MacVpnBackend] no default gateway outside the tunnel; routes kept"
                    << (ipv6 ? "inet6" : "inet");
        else if (wayOut->gateway != gateway || wayOut->interface != interfaceName)
            moveAround(ipv6, *wayOut);
        else
            restoreMissing(ipv6, *table);
    }
    return changes.wayOut;
}

// What the network routes around a full tunnel is said once, and listed for
// details while it lasts.
void HostRoutes::noticeForeign(const RoutingTable &table)
{
    QStringList ours;
    for (const bool ipv6 : {false, true}) {
        for (const RouteEntry &route : aroundTunnel(ipv6))
            ours.append(route.destination);
    }
    const auto full = [this](const char *half) {
        return installedRoutes.contains(RouteEntry::to(QLatin1String(half), tunnelInterface));
    };
    const QStringList found =
        ForeignRoutes::in(table, tunnelInterface, full("0.0.0.0/1"), full("::/1"), ours);
    for (const QString &route : found) {
        if (!foreignRoutes.contains(route))
            qWarning().noquote() << "[MacVpnBackend] the network routes" << route
                                 << "around the tunnel";
    }
    foreignRoutes = found;
}

// The routes that leave by a gateway rather than the tunnel: the server
// route, the bypass hosts and the exclusions of that family.
QList<RouteEntry> HostRoutes::aroundTunnel(bool ipv6) const
{
    QList<RouteEntry> around;
    if (!serverRouteGateway.isEmpty() && NetworkText::isIpv6Route(serverHost) == ipv6)
        around.append(RouteEntry::to(serverHost, serverRouteGateway));
    if (ipv6)
        return around;
    for (const QString &address : controlPlaneBypassHosts)
        around.append(RouteEntry::to(address, physicalGateway));
    for (const RouteEntry &route : installedRoutes) {
        if (route.via != tunnelInterface)
            around.append(route);
    }
    return around;
}

// The routes around the tunnel are deleted, recorded by the new gateway and
// added again by it. Recorded before they are added, so that the journal
// always names the gateway they may go by; not added when that record fails.
void HostRoutes::moveAround(bool ipv6, const RoutingTable::Route &wayOut)
{
    QString &gateway = ipv6 ? serverRouteGateway : physicalGateway;
    QString &interfaceName = ipv6 ? serverRouteInterface : physicalInterface;
    qInfo() << "[MacVpnBackend] default gateway changed" << gateway << "->" << wayOut.gateway
            << "on" << wayOut.interface;
    // Gone first; one that left with the old network is gone already. One
    // that will not go is kept for the undo, whatever becomes of its move.
    undo(aroundTunnel(ipv6));

    const QString previous = gateway;
    gateway = wayOut.gateway;
    interfaceName = wayOut.interface;
    if (!ipv6 && !NetworkText::isIpv6Route(serverHost) && !serverRouteGateway.isEmpty())
        serverRouteGateway = wayOut.gateway;
    for (RouteEntry &route : installedRoutes) {
        if (!ipv6 && route.via == previous)
            route.via = wayOut.gateway;
    }
    if (!journal.save()) {
        qWarning() << "[MacVpnBackend] routes not moved: the journal cannot record them";
        return;
    }

    for (const RouteEntry &route : aroundTunnel(ipv6)) {
        const QString failure = add(route);
        if (failure.isEmpty())
            continue;
        // Not added, so not ours: dropped from the record.
        qWarning() << "[MacVpnBackend] route not moved" << route.destination << failure;
        if (route.destination == serverHost)
            serverRouteGateway.clear();
        controlPlaneBypassHosts.removeAll(route.destination);
        installedRoutes.removeIf([&route](const RouteEntry &entry) { return entry == route; });
    }
    journal.save();
}

// The same way out, but a link that went away took its routes with it (a
// Wi-Fi drop and rejoin, or a cable to the same router): ours come back.
void HostRoutes::restoreMissing(bool ipv6, const RoutingTable &table)
{
    for (const RouteEntry &route : aroundTunnel(ipv6)) {
        if (table.contains(route.destination, route.via))
            continue;
        const QString failure = add(route);
        if (failure.isEmpty())
            qInfo() << "[MacVpnBackend] route added again" << route.destination << "via"
                    << route.via;
        else
            qWarning() << "[MacVpnBackend] route not added again" << route.destination << failure;
    }
}
