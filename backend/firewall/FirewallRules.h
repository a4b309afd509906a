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
// given: the server's port for the tunnel program alone, the tunnel (its
// states bound to its interface), DNS only to the tunnel's servers through
// it, the control-plane hosts for HTTPS, the exclusions of split tunnelling
// and, when asked for, the local networks. Everything else is refused: at
// once for what the Mac sends, so that applications fail instead of
// hanging; silently for what arrives.
//
// Each rule is written as pfctl prints it back ("pfctl -a ANCHOR -s rules"),
// ports by number: loaded without the optimiser, what pf holds reads back
// line for line as what was sent (see PfctlReply::sameRules).
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
    bool appleServices = false; // Apple's own networks, which macOS may reach by en0 alone
    // Only these destinations go through the tunnel; none of them may leave
    // by another interface, and everything else is the network's. Empty: the
    // tunnel carries everything else, and nothing else leaves.
    QStringList onlyThrough;

    bool operator==(const Allowed &other) const;
};

// Long lists are constant tables of the anchor, which nobody else can
// change: the exclusions passed around the tunnel, and the destinations that
// may leave by the tunnel alone.
struct Table
{
    const char *name;
    QStringList entries; // as "pfctl -t TABLE -T show" prints them, in an order of its own
};
constexpr const char *AroundTable = "tarvex_around";
constexpr const char *TunnelledTable = "tarvex_tunnelled";

// The rules as "pfctl -s rules" prints them; the tables with entries; and
// the text to load, the tables first.
QStringList rules(const Allowed &allowed);
QList<Table> tables(const Allowed &allowed);
QByteArray text(const Allowed &allowed);

// What "pfctl -k" must end when the rules change from before to after: each
// entry a source and a destination, for the states of the connections the
// new rules no longer pass. Every state of both families when the block
// begins without a tunnel or the tunnel leaves it.
QList<QStringList> statesToKill(const Allowed *before, const Allowed &after);

} // namespace FirewallRules
