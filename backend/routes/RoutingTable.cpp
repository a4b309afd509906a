#include "backend/routes/RoutingTable.h"

#include <QStringList>

namespace {

// netstat names a network by its classful abbreviation: "0/1", "128.0/1",
// "10" for 10.0.0.0/8, "192.168.1" for 192.168.1.0/24. Without a prefix, the
// mask is the one of the address's class (netname() and domask()).
bool parseIpv4(const QString &text, bool host, QHostAddress *network, int *prefix)
{
    QStringList octets = text.section(QLatin1Char('/'), 0, 0).split(QLatin1Char('.'));
    if (octets.size() > 4)
        return false;
    const qsizetype given = octets.size();
    while (octets.size() < 4)
        octets.append(QStringLiteral("0"));
    *network = QHostAddress(octets.join(QLatin1Char('.')));
    if (network->protocol() != QAbstractSocket::IPv4Protocol)
        return false;
    bool ok = true;
    if (text.contains(QLatin1Char('/')))
        *prefix = text.section(QLatin1Char('/'), 1).toInt(&ok);
    else if (host || given == 4)
        *prefix = 32;
    else
        *prefix = network->toIPv4Address() < 0x80000000u   ? 8
                  : network->toIPv4Address() < 0xC0000000u ? 16
                                                           : 24;
    return ok;
}

bool parseDestination(const QString &text, bool ipv6, bool host, QHostAddress *network, int *prefix)
{
    if (text == QLatin1String("default")) {
        *network = ipv6 ? QHostAddress(QHostAddress::AnyIPv6) : QHostAddress(QHostAddress::AnyIPv4);
        *prefix = 0;
        return true;
    }
    if (!ipv6)
        return parseIpv4(text, host, network, prefix);
    // "fe80::%lo0/64": the scope of a link-local network is not part of it.
    const QString address = text.section(QLatin1Char('/'), 0, 0).section(QLatin1Char('%'), 0, 0);
    *network = QHostAddress(address);
    bool ok = true;
    *prefix = text.contains(QLatin1Char('/')) ? text.section(QLatin1Char('/'), 1).toInt(&ok) : 128;
    return ok && network->protocol() == QAbstractSocket::IPv6Protocol;
}

} // namespace

RoutingTable RoutingTable::parse(const QString &netstatOutput)
{
    RoutingTable table;
    bool ipv6 = false;
    bool inTable = false;
    for (const QString &line : netstatOutput.split(QLatin1Char('\n'))) {
        const QStringList words = line.simplified().split(QLatin1Char(' '), Qt::SkipEmptyParts);
        if (words.size() == 1 && words[0].startsWith(QLatin1String("Internet"))) {
            ipv6 = words[0] == QLatin1String("Internet6:");
            inTable = false;
        } else if (!words.isEmpty() && words[0] == QLatin1String("Destination")) {
            inTable = true;
        } else if (inTable && words.size() >= 4) {
            Route route{QHostAddress(), 0, words[1], words[2], words[3]};
            if (parseDestination(words[0], ipv6, route.flags.contains(QLatin1Char('H')),
                                 &route.network, &route.prefix))
                table.routes.append(route);
        }
    }
    return table;
}

std::optional<RoutingTable::Route> RoutingTable::primaryDefault(const QString &excluded) const
{
    for (const Route &route : routes) {
        if (route.prefix == 0 && !route.flags.contains(QLatin1Char('I')) &&
            route.interface != excluded && !QHostAddress(route.gateway).isNull())
            return route;
    }
    return std::nullopt;
}

bool RoutingTable::contains(const QString &destination, const QString &via) const
{
    const QHostAddress address(destination.section(QLatin1Char('/'), 0, 0));
    const bool ipv6 = address.protocol() == QAbstractSocket::IPv6Protocol;
    const int prefix = destination.contains(QLatin1Char('/'))
                           ? destination.section(QLatin1Char('/'), 1).toInt()
                           : (ipv6 ? 128 : 32);
    const QHostAddress gateway(via);
    for (const Route &route : routes) {
        const bool sameDestination =
            route.prefix == prefix && route.network.isInSubnet(address, prefix);
        const bool sameWay =
            gateway.isNull() ? route.interface == via : QHostAddress(route.gateway) == gateway;
        if (!address.isNull() && sameDestination && sameWay)
            return true;
    }
    return false;
}
