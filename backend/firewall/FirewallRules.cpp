#include "backend/firewall/FirewallRules.h"

#include <QHostAddress>

namespace FirewallRules {

namespace {

// Private and link-local ranges of both families: out to them, in from them.
constexpr const char *LocalNetworks[] = {"10.0.0.0/8",     "172.16.0.0/12", "192.168.0.0/16",
                                         "169.254.0.0/16", "fc00::/7",      "fe80::/10"};
// Multicast only for the link and the site, and the local broadcast.
constexpr const char *LocalGroups[] = {"224.0.0.0/24", "239.0.0.0/8", "255.255.255.255",
                                       "ff01::/16",    "ff02::/16",   "ff03::/16",
                                       "ff04::/16",    "ff05::/16"};
// Apple's own networks: on some releases macOS binds push, Messages and
// iCloud to the physical interface, whatever the routes say.
constexpr const char *AppleNetworks[] = {"17.0.0.0/8", "2620:149::/32", "2a01:b740::/29"};
// AirDrop, AirPlay and Continuity: links between two Macs, never a way out.
constexpr const char *PeerLinks[] = {"awdl0", "llw0"};
constexpr const char *Transports[] = {"udp", "tcp"};
constexpr int DnsPort = 53;
constexpr int HttpsPort = 443;

// DHCP and DHCPv6 find their servers by broadcast and multicast; the answers
// come to the client's port. Neighbour discovery never leaves the link:
// solicitations and advertisements to link-local and link-scope multicast
// addresses, and from link-local ones.
constexpr const char *LinkRules[] = {
    "pass quick on lo0 all no state",
    "pass out quick inet proto udp from any port = 68 to 255.255.255.255 port = 67 no state",
    "pass in quick inet proto udp from any port = 67 to any port = 68 no state",
    "pass out quick inet6 proto udp from fe80::/10 port = 546 to ff02::1:2 port = 547 no state",
    "pass in quick inet6 proto udp from fe80::/10 port = 547 to fe80::/10 port = 546 no state",
    "pass out quick inet6 proto ipv6-icmp from any to ff02::/16 icmp6-type routersol no state",
    "pass out quick inet6 proto ipv6-icmp from any to fe80::/10 icmp6-type neighbrsol no state",
    "pass out quick inet6 proto ipv6-icmp from any to ff02::/16 icmp6-type neighbrsol no state",
    "pass out quick inet6 proto ipv6-icmp from any to fe80::/10 icmp6-type neighbradv no state",
    "pass out quick inet6 proto ipv6-icmp from any to ff02::/16 icmp6-type neighbradv no state",
    "pass in quick inet6 proto ipv6-icmp from fe80::/10 to any icmp6-type routeradv no state",
    "pass in quick inet6 proto ipv6-icmp from fe80::/10 to any icmp6-type neighbrsol no state",
    "pass in quick inet6 proto ipv6-icmp from fe80::/10 to any icmp6-type neighbradv no state",
};

// An address or range as pfctl prints it: a host without its prefix, a
// network by its first address, each family in its own normal form; and the
// family keyword pfctl adds for it.
struct Destination
{
    QString text;
    QString family;
};

Destination destination(const QString &value)
{
    const qsizetype slash = value.indexOf(QLatin1Char('/'));
    const QHostAddress address(slash < 0 ? value : value.left(slash));
    const bool ipv6 = address.protocol() == QAbstractSocket::IPv6Protocol;
    const QString family = ipv6 ? QStringLiteral("inet6") : QStringLiteral("inet");
    const auto [network, prefix] = QHostAddress::parseSubnet(value);
    if (address.isNull())
        return {value, family};
    if (slash < 0 || network.isNull() || prefix == (ipv6 ? 128 : 32))
        return {address.toString(), family};
    return {QStringLiteral("%1/%2").arg(network.toString()).arg(prefix), family};
}

QString passOut(const QString &to, const char *state)
{
    const Destination where = destination(to);
    return QStringLiteral("pass out quick %1 from any to %2 %3")
        .arg(where.family, where.text, QLatin1String(state));
}

// The tunnel program's packets to its server alone: other traffic to the
// server's address does not leave by its route around the tunnel.
QStringList serverRule(const Allowed &allowed)
{
    if (allowed.endpoint.isEmpty())
        return {};
    const Destination server = destination(allowed.endpoint);
    return {QStringLiteral("pass out quick %1 proto udp from any to %2 port = %3 user = 0 "
                           "keep state")
                .arg(server.family, server.text)
                .arg(allowed.port)};
}

QStringList httpsRules(const Allowed &allowed)
{
    QStringList rules;
    for (const QString &address : allowed.https) {
        const Destination host = destination(address);
        rules << QStringLiteral("pass out quick %1 proto tcp from any to %2 port = %3 flags S/SA "
                                "keep state")
                     .arg(host.family, host.text)
                     .arg(HttpsPort);
    }
    return rules;
}

// Bound to the tunnel's interface: once the tunnel is gone, a connection
// it carried does not go on by another.
QString tunnelRule(const QString &tunnel)
{
    return QStringLiteral("pass quick on %1 all flags S/SA keep state (if-bound)").arg(tunnel);
}

// "Only selected": the network keeps everything but the selected
// destinations, which a route of its own (DHCP's option 121) could
// otherwise take around the tunnel.
QStringList mirrorRules(const Allowed &allowed)
{
    return serverRule(allowed) + httpsRules(allowed) +
           QStringList{tunnelRule(allowed.tunnelInterface),
                       QStringLiteral("block return out quick from any to <%1>")
                           .arg(QLatin1String(TunnelledTable))};
}

} // namespace

bool Allowed::operator==(const Allowed &other) const
{
    return tunnelInterface == other.tunnelInterface && tunnelDns == other.tunnelDns &&
           endpoint == other.endpoint && port == other.port && https == other.https &&
           around == other.around && localNetworks == other.localNetworks &&
           appleServices == other.appleServices && onlyThrough == other.onlyThrough;
}

QStringList rules(const Allowed &allowed)
{
    const QString &tunnel = allowed.tunnelInterface;
    if (!tunnel.isEmpty() && !allowed.onlyThrough.isEmpty())
        return mirrorRules(allowed);
    QStringList rules;
    for (const char *rule : LinkRules)
        rules << QLatin1String(rule);

    // Before the port-53 block: a server may listen on the DNS port, which
    // hotel networks let through.
    rules << serverRule(allowed);

    // DNS goes only to the tunnel's servers, through the tunnel: not to the
    // network's resolver, and not through a hole the LAN rules would open.
    for (const QString &server : tunnel.isEmpty() ? QStringList() : allowed.tunnelDns) {
        const Destination where = destination(server);
        rules << QStringLiteral("pass out quick on %1 %2 proto udp from any to %3 port = %4 "
                                "keep state (if-bound)")
                     .arg(tunnel, where.family, where.text)
                     .arg(DnsPort)
              << QStringLiteral("pass out quick on %1 %2 proto tcp from any to %3 port = %4 "
                                "flags S/SA keep state (if-bound)")
                     .arg(tunnel, where.family, where.text)
                     .arg(DnsPort);
    }
    if (!tunnel.isEmpty() && allowed.tunnelDns.isEmpty())
        rules << QStringLiteral("pass out quick on %1 proto udp from any to any port = %2 keep "
                                "state (if-bound)")
                     .arg(tunnel)
                     .arg(DnsPort)
              << QStringLiteral("pass out quick on %1 proto tcp from any to any port = %2 flags "
                                "S/SA keep state (if-bound)")
                     .arg(tunnel)
                     .arg(DnsPort);
    for (const char *transport : Transports)
        rules << QStringLiteral("block return out quick proto %1 from any to any port = %2")
                     .arg(QLatin1String(transport))
                     .arg(DnsPort);

    if (!tunnel.isEmpty())
        rules << tunnelRule(tunnel);
    rules << httpsRules(allowed);
    if (allowed.appleServices) {
        for (const char *network : AppleNetworks)
            rules << passOut(QLatin1String(network), "flags S/SA keep state");
    }
    // One rule, however many: a country's ranges are a table's entries.
    if (!allowed.around.isEmpty())
        rules << QStringLiteral("pass out quick from any to <%1> flags S/SA keep state")
                     .arg(QLatin1String(AroundTable));
    if (allowed.localNetworks) {
        for (const char *network : LocalNetworks) {
            const Destination lan = destination(QLatin1String(network));
            rules << passOut(lan.text, "flags S/SA keep state")
                  << QStringLiteral("pass in quick %1 from %2 to any flags S/SA keep state")
                         .arg(lan.family, lan.text);
        }
        for (const char *group : LocalGroups)
            rules << passOut(QLatin1String(group), "no state");
        for (const char *link : PeerLinks)
            rules << QStringLiteral("pass quick on %1 all flags S/SA keep state")
                         .arg(QLatin1String(link));
    }
    rules << QStringLiteral("block return out quick all")
          << QStringLiteral("block drop in quick all");
    return rules;
}

QList<Table> tables(const Allowed &allowed)
{
    const bool mirror = !allowed.tunnelInterface.isEmpty() && !allowed.onlyThrough.isEmpty();
    const QStringList &listed = mirror ? allowed.onlyThrough : allowed.around;
    if (listed.isEmpty())
        return {};
    Table table{mirror ? TunnelledTable : AroundTable, {}};
    table.entries.reserve(listed.size());
    for (const QString &entry : listed)
        table.entries.append(destination(entry).text);
    return {table};
}

QByteArray text(const Allowed &allowed)
{
    QByteArray text;
    for (const Table &table : tables(allowed))
        text += QStringLiteral("table <%1> const { %2 }\n")
                    .arg(QLatin1String(table.name), table.entries.join(QLatin1Char(' ')))
                    .toUtf8();
    return text + rules(allowed).join(QLatin1Char('\n')).toUtf8() + '\n';
}

QList<QStringList> statesToKill(const Allowed *before, const Allowed &after)
{
    if (after.tunnelInterface.isEmpty() && (!before || !before->tunnelInterface.isEmpty()))
        return {{QStringLiteral("0.0.0.0/0")}, {QStringLiteral("::/0")}};
    if (!before)
        return {};
    // By destination: the connections made to what is no longer let out.
    // A connection from the LAN to the Mac goes to the Mac's own LAN
    // address, which the ranges hold too.
    QStringList gone;
    const auto narrowed = [&gone](const QStringList &was, const QStringList &now) {
        for (const QString &destination : was) {
            if (!now.contains(destination))
                gone.append(destination);
        }
    };
    if (before->localNetworks && !after.localNetworks) {
        for (const char *network : LocalNetworks)
            gone.append(QLatin1String(network));
    }
    if (before->appleServices && !after.appleServices) {
        for (const char *network : AppleNetworks)
            gone.append(QLatin1String(network));
    }
    narrowed(before->around, after.around);
    narrowed(before->https, after.https);
    if (!before->endpoint.isEmpty())
        narrowed({before->endpoint}, {after.endpoint});
    QList<QStringList> kills;
    for (const QString &destination : std::as_const(gone)) {
        const bool ipv6 = destination.contains(QLatin1Char(':'));
        kills.append({ipv6 ? QStringLiteral("::/0") : QStringLiteral("0.0.0.0/0"),
                      FirewallRules::destination(destination).text});
    }
    return kills;
}

} // namespace FirewallRules
