#pragma once

#include <QByteArray>
#include <QHash>
#include <QHostAddress>
#include <QList>
#include <QString>

#include <optional>

// The routing table of both families as the kernel hands it over (sysctl
// NET_RT_DUMP2, what netstat reads: nothing is sent on a routing socket, so
// reading it wakes no monitor), the kernel's own clones left out as netstat
// leaves them out.
class RoutingTable
{
public:
    struct Route
    {
        QHostAddress network;
        int prefix = 0;
        QString gateway; // an address, or the interface for a route through one
        int flags = 0;
        QString interface;
    };

    static RoutingTable fromDump(const QByteArray &records, const QHash<uint, QString> &interfaces);

    // The default route of that family the Mac uses: the one not bound to an
    // interface, by a gateway address, and not through the given interface.
    std::optional<Route> primaryDefault(bool ipv6, const QString &excludedInterface) const;

    // Whether a route to the destination (an address or a range) goes by the
    // gateway address or through the interface named by via.
    bool contains(const QString &destination, const QString &via) const;

    QList<Route> routes;

private:
    QMultiHash<QString, qsizetype> byDestination;
};
