#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

// The pf rules of the kill switch, loaded into an anchor of their own. Only
// what is listed passes, inbound or outbound, IPv4 or IPv6; everything else
// is dropped: the tunnel itself, the server's UDP port on any interface (so
// the tunnel can handshake again after a change of network), loopback, DHCP,
// IPv6 neighbour and router discovery, what leaves outside the tunnel by
// design (the control-plane hosts, the exclusions of split tunnelling) and,
// when asked for, the local networks.
namespace FirewallRules {

struct Allowed
{
    QString tunnelInterface; // empty until the tunnel program has named it
    QString endpoint;        // the server's address
    int port = 0;
    QStringList around; // addresses and ranges routed around the tunnel
    bool localNetworks = false;
};

QByteArray text(const Allowed &allowed);

} // namespace FirewallRules
