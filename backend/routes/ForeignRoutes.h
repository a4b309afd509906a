#pragma once

#include "backend/routes/RoutingTable.h"

#include <QString>
#include <QStringList>

// Routes the network the Mac is on has put beside a full tunnel: more
// specific than its halves, not ours, and leaving by another interface for
// addresses that can be public. Each wins over the tunnel for its range: a
// route pushed by DHCP (option 121, "TunnelVision") or a "local" subnet
// that is really a public range ("LocalNet"). The network's private and
// link-local ranges are its own business and are not listed.
namespace ForeignRoutes {

// "203.0.113.0/24 via 192.168.1.1 (en0)" for each, in the table's order.
// fullIpv4 and fullIpv6: whether that family goes through the tunnel whole;
// ours: the destinations routed around the tunnel by the service itself.
QStringList in(const RoutingTable &table, const QString &tunnelInterface, bool fullIpv4,
               bool fullIpv6, const QStringList &ours);

} // namespace ForeignRoutes
