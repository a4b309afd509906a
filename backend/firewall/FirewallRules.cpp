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

} // namespace

bool Allowed::operator==(const Allowed &other) const
{
    return tunnelInterface == other.tunnelInterface && tunnelDns == other.tunnelDns &&
           endpoint == other.endpoint && port == other.port && https == other.https &&
           around == other.around && localNetworks == other.localNetworks;
}

QStringList rules(const Allowed &allowed)
{
    const QString &tunnel = allowed.tunnelInterface;
    QStringList rules;
    for (const char *rule : LinkRules)
        rules << QLatin1String(rule);

    // Before the port-53 block: a server may listen on the DNS port, which
    // hotel networks let through.
    if (!allowed.endpoint.isEmpty()) {
        const Destination server = destination(allowed.endpoint);
        rules << QStringLiteral("pass out quick %1 proto udp from any to %2 port = %3 user = 0 "
                                "keep state")
                     .arg(server.family, server.text)
                     .arg(allowed.port);
    }

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

    // Bound to the tunnel's interface: once the tunnel is gone, a connection
    // it carried does not go on by another.
    if (!tunnel.isEmpty())
        rules << QStringLiteral("pass quick on %1 all flags S/SA keep state (if-bound)").arg(tunnel);
    for (const QString &address : allowed.https) {
        const Destination host = destination(address);
        rules << QStringLiteral("pass out quick %1 proto tcp from any to %2 port = %3 flags S/SA "
                                "keep state")
                     .arg(host.family, host.text)
                     .arg(HttpsPort);
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
    }
    rules << QStringLiteral("block return out quick all") << QStringLiteral("block drop in quick all");
    return rules;
}

QStringList aroundEntries(const Allowed &allowed)
{
    QStringList entries;
    entries.reserve(allowed.around.size());
    for (const QString &around : allowed.around)
        entries.append(destination(around).text);
    return entries;
}

QByteArray text(const Allowed &allowed)
{
    QByteArray table;
    if (!allowed.around.isEmpty())
        table = QStringLiteral("table <%1> const { %2 }\n")
                    .arg(QLatin1String(AroundTable), aroundEntries(allowed).join(QLatin1Char(' ')))
                    .toUtf8();
    return table + rules(allowed).join(QLatin1Char('\n')).toUtf8() + '\n';
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
