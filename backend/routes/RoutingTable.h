#pragma once

#include <QHostAddress>
#include <QList>
#include <QString>

#include <optional>

// The routing table of one address family as "netstat -rn -f inet|inet6"
// prints it. netstat reads the table through sysctl and sends nothing on a
// routing socket, so reading it does not wake the route monitor, as every
// "route get" would.
class RoutingTable
{
public:
    struct Route
    {
        QHostAddress network;
        int prefix = 0;
        QString gateway; // an address, or "link#N" / the interface for a link route
        QString flags;
        QString interface;
    };

    static RoutingTable parse(const QString &netstatOutput);

    // The default route the Mac uses: the one not bound to an interface (no
    // "I" flag), by a gateway address, and not through the given interface.
    std::optional<Route> primaryDefault(const QString &excludedInterface) const;

    // Whether a route to the destination (an address or a range) goes by the
    // gateway address or through the interface named by via.
    bool contains(const QString &destination, const QString &via) const;

    QList<Route> routes;
};
