#include "backend/routes/ForeignRoutes.h"

namespace ForeignRoutes {

namespace {

// Ranges no public address is in: whatever the network routes within them
// stays on it.
bool cannotBePublic(const QHostAddress &network, int prefix)
{
    static const QList<QPair<QHostAddress, int>> local = {
        QHostAddress::parseSubnet(QStringLiteral("0.0.0.0/8")),
        QHostAddress::parseSubnet(QStringLiteral("10.0.0.0/8")),
        QHostAddress::parseSubnet(QStringLiteral("100.64.0.0/10")),
        QHostAddress::parseSubnet(QStringLiteral("127.0.0.0/8")),
        QHostAddress::parseSubnet(QStringLiteral("169.254.0.0/16")),
        QHostAddress::parseSubnet(QStringLiteral("172.16.0.0/12")),
        QHostAddress::parseSubnet(QStringLiteral("192.168.0.0/16")),
        QHostAddress::parseSubnet(QStringLiteral("224.0.0.0/3")),
        QHostAddress::parseSubnet(QStringLiteral("::1/128")),
        QHostAddress::parseSubnet(QStringLiteral("fc00::/7")),
        QHostAddress::parseSubnet(QStringLiteral("fe80::/10")),
        QHostAddress::parseSubnet(QStringLiteral("ff00::/8")),
    };
    for (const auto &[start, length] : local) {
        if (prefix >= length && network.isInSubnet(start, length))
            return true;
    }
    return false;
}

} // namespace

QStringList in(const RoutingTable &table, const QString &tunnelInterface, bool fullIpv4,
               bool fullIpv6, const QStringList &ours)
{
    QStringList found;
    for (const RoutingTable::Route &route : table.routes) {
        const bool ipv6 = route.network.protocol() == QAbstractSocket::IPv6Protocol;
        const int width = ipv6 ? 128 : 32;
        const QString range =
            route.prefix == width
                ? route.network.toString()
                : QStringLiteral("%1/%2").arg(route.network.toString()).arg(route.prefix);
        if (!(ipv6 ? fullIpv6 : fullIpv4) || route.prefix < 1 ||
            route.interface == tunnelInterface || route.interface.startsWith(QLatin1String("lo")) ||
            ours.contains(range) || cannotBePublic(route.network, route.prefix))
            continue;
        found.append(QStringLiteral("%1 via %2 (%3)").arg(range, route.gateway, route.interface));
    }
    return found;
}

} // namespace ForeignRoutes
