#include "backend/host/FirewallRules.h"

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

QString rule(const char *pattern)
{
    return QString::fromLatin1(pattern);
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
    QStringList rules = {rule("pass quick on lo0 all no state")};
    // DHCP and DHCPv6 find their servers by broadcast and multicast; the
    // answers come to the client's port.
    rules << rule("pass out quick inet proto udp from any port 68 to 255.255.255.255 port 67 "
                  "no state")
          << rule("pass in quick inet proto udp from any port 67 to any port 68 no state")
          << rule("pass out quick inet6 proto udp from fe80::/10 port 546 to ff02::1:2 port 547 "
                  "no state")
          << rule("pass in quick inet6 proto udp from fe80::/10 port 547 to fe80::/10 port 546 "
                  "no state");
    // Neighbour discovery never leaves the link: solicitations and
    // advertisements to link-local and link-scope multicast addresses, and
    // from link-local ones.
    rules << rule("pass out quick inet6 proto icmp6 to ff02::/16 icmp6-type 133 no state");
    for (const char *type : {"135", "136"}) {
        for (const char *scope : {"fe80::/10", "ff02::/16"})
            rules << QStringLiteral("pass out quick inet6 proto icmp6 to %1 icmp6-type %2 no state")
                         .arg(QLatin1String(scope), QLatin1String(type));
    }
    for (const char *type : {"134", "135", "136"})
        rules << QStringLiteral("pass in quick inet6 proto icmp6 from fe80::/10 icmp6-type %1 "
                                "no state")
                     .arg(QLatin1String(type));

    // DNS goes only to the tunnel's servers, through the tunnel: not to the
    // network's resolver, and not through a hole the LAN rules would open.
    const QStringList dns =
        allowed.tunnelDns.isEmpty() ? QStringList{QStringLiteral("any")} : allowed.tunnelDns;
    for (const QString &server : tunnel.isEmpty() ? QStringList() : dns) {
        for (const char *transport : Transports)
            rules << QStringLiteral("pass out quick on %1 proto %2 to %3 port 53 keep state "
                                    "(if-bound)")
                         .arg(tunnel, QLatin1String(transport), server);
    }
    for (const char *transport : Transports)
        rules << QStringLiteral("block return out quick proto %1 to any port 53")
                     .arg(QLatin1String(transport));

    // Bound to the tunnel's interface: once the tunnel is gone, a connection
    // it carried does not go on by another.
    if (!tunnel.isEmpty())
        rules << QStringLiteral("pass quick on %1 all keep state (if-bound)").arg(tunnel);
    if (!allowed.endpoint.isEmpty())
        rules << QStringLiteral("pass out quick proto udp to %1 port %2 user root keep state")
                     .arg(allowed.endpoint)
                     .arg(allowed.port);
    for (const QString &address : allowed.https)
        rules << QStringLiteral("pass out quick proto tcp to %1 port 443 keep state").arg(address);
    for (const QString &destination : allowed.around)
        rules << QStringLiteral("pass out quick to %1 keep state").arg(destination);
    if (allowed.localNetworks) {
        for (const char *network : LocalNetworks)
            rules << QStringLiteral("pass out quick to %1 keep state").arg(QLatin1String(network))
                  << QStringLiteral("pass in quick from %1 keep state").arg(QLatin1String(network));
        for (const char *group : LocalGroups)
            rules << QStringLiteral("pass out quick to %1 no state").arg(QLatin1String(group));
    }
    rules << rule("block return out quick all") << rule("block drop in quick all");
    return rules;
}

QByteArray text(const Allowed &allowed)
{
    return rules(allowed).join(QLatin1Char('\n')).toUtf8() + '\n';
}

} // namespace FirewallRules
