#include "backend/routes/RoutingTable.h"

#include "backend/routes/RouteMessage.h"

namespace {

QString key(const QHostAddress &network, int prefix)
{
    return network.toString() + QLatin1Char('/') + QString::number(prefix);
}

} // namespace

RoutingTable RoutingTable::fromDump(const QByteArray &records,
                                    const QHash<uint, QString> &interfaces)
{
    RoutingTable table;
    for (const RouteMessage &record : RouteMessage::decodeAll(records)) {
        const bool ipv6 = record.destination.protocol() == QAbstractSocket::IPv6Protocol;
        if (record.destination.isNull() || (record.flags & RouteMessage::WasCloned))
            continue;
        const int prefix = (record.flags & RouteMessage::Host) || record.prefix < 0
                               ? (ipv6 ? 128 : 32)
                               : record.prefix;
        QString gateway = record.gatewayLink.isEmpty() ? record.gateway.toString() : record.gatewayLink;
        if (record.gatewayScope != 0)
            gateway += QLatin1Char('%') + interfaces.value(record.gatewayScope);
        Route route{QHostAddress(record.destination.toString().section(QLatin1Char('%'), 0, 0)),
                    prefix, gateway, record.flags, interfaces.value(record.index)};
        route.network = QHostAddress::parseSubnet(key(route.network, prefix)).first;
        table.byDestination.insert(key(route.network, prefix), table.routes.size());
        table.routes.append(route);
    }
    return table;
}

std::optional<RoutingTable::Route> RoutingTable::primaryDefault(bool ipv6,
                                                                 const QString &excluded) const
{
    for (const Route &route : routes) {
        if (route.prefix == 0 && !(route.flags & RouteMessage::InterfaceScoped) &&
            (route.network.protocol() == QAbstractSocket::IPv6Protocol) == ipv6 &&
            route.interface != excluded && !QHostAddress(route.gateway).isNull())
            return route;
    }
    return std::nullopt;
}

bool RoutingTable::contains(const QString &destination, const QString &via) const
{
    const QString range = destination.contains(QLatin1Char('/'))
                              ? destination
                              : destination + (destination.contains(QLatin1Char(':'))
                                                   ? QLatin1String("/128")
                                                   : QLatin1String("/32"));
    const auto [network, prefix] = QHostAddress::parseSubnet(range);
    const QHostAddress gateway(via);
    for (const qsizetype at : byDestination.values(key(network, prefix))) {
        const Route &route = routes[at];
        if (gateway.isNull() ? route.interface == via
                             : QHostAddress(route.gateway).isEqual(gateway))
            return true;
    }
    return false;
}
