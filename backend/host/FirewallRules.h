#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

// The pf rules of the kill switch, loaded into an anchor of their own. Every
// rule names its direction: pf applies a rule without one to both, so "pass
// from 192.168.0.0/16" would let out whatever the Mac sends from its LAN
// address, to anywhere. Evaluation stops at the first rule that matches.
// Always let through: loopback; DHCP to the broadcast address and DHCPv6 to
// the link's servers; neighbour and router discovery on the link. Then, as
// given: the tunnel (its states bound to its interface), DNS only to the
// tunnel's servers through it, the server's port for the tunnel program
// alone, the control-plane hosts for HTTPS, the exclusions of split
// tunnelling and, when asked for, the local networks. Everything else is
// refused: at once for what the Mac sends, so that applications fail
// instead of hanging; silently for what arrives.
namespace FirewallRules {

struct Allowed
{
    QString tunnelInterface; // empty while there is no tunnel: the block alone
    QStringList tunnelDns;   // the tunnel's DNS servers; none: any, through the tunnel
    QString endpoint;        // the server's address; empty for none
    int port = 0;
    QStringList https;  // the control-plane hosts, reached by HTTPS around the tunnel
    QStringList around; // addresses and ranges routed around the tunnel by design
    bool localNetworks = false;

    bool operator==(const Allowed &other) const;
};

// One rule a line, no lists: pfctl prints the rules it holds one a line too,
// so that the two can be counted against each other.
QStringList rules(const Allowed &allowed);
QByteArray text(const Allowed &allowed);

} // namespace FirewallRules
