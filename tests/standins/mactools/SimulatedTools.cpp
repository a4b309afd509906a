#include "Commands.h"

#include <QHostAddress>
#include <QJsonArray>

namespace {

QString key(const char *text)
{
    return QString::fromLatin1(text);
}

int findRoute(const QJsonArray &routes, const QString &family, const QString &type,
              const QString &destination)
{
    for (int i = 0; i < routes.size(); ++i) {
        const QJsonObject r = routes.at(i).toObject();
        if (r.value(key("family")).toString() == family &&
            r.value(key("type")).toString() == type &&
            canonicalDestination(r.value(key("destination")).toString()) ==
                canonicalDestination(destination))
            return i;
    }
    return -1;
}

QHostAddress maskOf(const QString &destination, bool ipv6)
{
    const int length = destination == QLatin1String("default")
                           ? 0
                           : QHostAddress::parseSubnet(canonicalDestination(destination)).second;
    if (!ipv6)
        return QHostAddress(length == 0 ? 0u : ~0u << (32 - length));
    Q_IPV6ADDR bytes = {};
    for (int bit = 0; bit < length; ++bit)
        bytes[bit / 8] |= quint8(0x80 >> (bit % 8));
    return QHostAddress(bytes);
}

// As macOS answers "route -n get": the route itself when one has exactly that
// destination, otherwise, for a host, the most specific route that covers it.
Result simulatedRouteGet(const QJsonArray &routes, const RouteCommand &command)
{
    const bool ipv6 = command.family == QLatin1String("inet6");
    const QString wanted = canonicalDestination(command.destination);
    int best = -1;
    int bestLength = -1;
    for (int i = 0; i < routes.size(); ++i) {
        const QJsonObject r = routes.at(i).toObject();
        const QString destination = r.value(key("destination")).toString();
        if (r.value(key("family")).toString() != command.family)
            continue;
        if (canonicalDestination(destination) == wanted) {
            best = i;
            break;
        }
        const auto subnet =
            destination == QLatin1String("default")
                ? qMakePair(QHostAddress(ipv6 ? key("::") : key("0.0.0.0")), 0)
                : QHostAddress::parseSubnet(destination.contains(QLatin1Char('/'))
                                                ? destination
                                                : destination + (ipv6 ? key("/128") : key("/32")));
        if (command.type == QLatin1String("-host") && subnet.second > bestLength &&
            QHostAddress(command.destination).isInSubnet(subnet)) {
            best = i;
            bestLength = subnet.second;
        }
    }
    if (best < 0)
        return failure(key("route: writing to routing socket: not in table\n"));
    const QJsonObject r = routes.at(best).toObject();
    const QString destination = r.value(key("destination")).toString();
    const bool host = r.value(key("type")).toString() == QLatin1String("-host");
    const QString gateway = r.value(key("gateway")).toString();
    const bool viaGateway = !QHostAddress(gateway).isNull() || gateway.startsWith(key("link#"));
    QString text = QStringLiteral("   route to: %1\ndestination: %2\n")
                       .arg(command.destination, destination.section(QLatin1Char('/'), 0, 0));
    if (!host)
        text += QStringLiteral("       mask: %1\n")
                    .arg(destination == QLatin1String("default")
                             ? key("default")
                             : maskOf(destination, ipv6).toString());
    if (viaGateway)
        text += QStringLiteral("    gateway: %1\n").arg(gateway);
    text += QStringLiteral("  interface: %1\n      flags: <UP,%2%3DONE,STATIC>\n")
                .arg(r.value(key("interface")).toString(), viaGateway ? key("GATEWAY,") : QString(),
                     host ? key("HOST,") : QString());
    text += key(" recvpipe  sendpipe  ssthresh  rtt,msec    rttvar  hopcount      mtu     expire\n"
                "       0         0         0         0         0         0      1500         0\n");
    return {0, text, QString()};
}

} // namespace

Result simulatedRoute(QJsonObject &host, const RouteCommand &command)
{
    QJsonArray routes = host.value(key("routes")).toArray();
    if (command.command == QLatin1String("get"))
        return simulatedRouteGet(routes, command);

    const int existing = findRoute(routes, command.family, command.type, command.destination);
    if (command.command == QLatin1String("delete")) {
        if (existing < 0)
            return failure(key("route: writing to routing socket: not in table\n"), 1,
                           QStringLiteral("delete %1 %2: not in table\n")
                               .arg(command.word(), command.destination));
        routes.removeAt(existing);
        host.insert(key("routes"), routes);
        return {0, QStringLiteral("delete %1 %2\n").arg(command.word(), command.destination),
                QString()};
    }

    QString gateway = command.gateway;
    if (!command.interfaceName.isEmpty()) {
        if (!host.value(key("interfaces")).toObject().contains(command.interfaceName))
            return failure(key("route: writing to routing socket: Network is unreachable\n"), 1,
                           QStringLiteral("add %1 %2: gateway %3: Network is unreachable\n")
                               .arg(command.word(), command.destination, command.interfaceName));
        gateway = command.interfaceName;
    }
    if (existing >= 0)
        return failure(key("route: writing to routing socket: File exists\n"), 1,
                       QStringLiteral("add %1 %2: gateway %3: File exists\n")
                           .arg(command.word(), command.destination, gateway));
    routes.append(QJsonObject{
        {key("family"), command.family},
        {key("destination"), command.destination},
        {key("type"), command.type},
        {key("gateway"), gateway},
        {key("interface"), command.interfaceName.isEmpty() ? key("en0") : command.interfaceName}});
    host.insert(key("routes"), routes);
    return {
        0,
        QStringLiteral("add %1 %2: gateway %3\n").arg(command.word(), command.destination, gateway),
        QString()};
}

Result simulatedIfconfig(QJsonObject &host, const IfconfigCommand &command)
{
    QJsonObject interfaces = host.value(key("interfaces")).toObject();
    if (command.family == QLatin1String("list"))
        return {0, interfaces.keys().join(QLatin1Char(' ')) + QLatin1Char('\n'), QString()};
    if (!interfaces.contains(command.name))
        return failure(QStringLiteral("ifconfig: interface %1 does not exist\n").arg(command.name),
                       1);
    QJsonObject iface = interfaces.value(command.name).toObject();

    if (command.family.isEmpty()) {
        QString text = QStringLiteral("%1: flags=%2 mtu %3\n")
                           .arg(command.name, iface.value(key("up")).toBool()
                                                  ? key("8051<UP,POINTOPOINT,RUNNING,MULTICAST>")
                                                  : key("8050<POINTOPOINT,RUNNING,MULTICAST>"))
                           .arg(iface.value(key("mtu")).toInt());
        if (iface.contains(key("inet")))
            text +=
                QStringLiteral("\tinet %1 --> %2 netmask 0xffffffff\n")
                    .arg(iface.value(key("inet")).toString(), iface.value(key("dest")).toString());
        for (const QJsonValue &v6 : iface.value(key("inet6")).toArray())
            text += QStringLiteral("\tinet6 %1 prefixlen 128\n").arg(v6.toString());
        return {0, text, QString()};
    }

    if (command.family == QLatin1String("inet")) {
        iface.insert(key("inet"), command.address);
        iface.insert(key("dest"), command.destination);
        if (!command.netmask.isEmpty())
            iface.insert(key("netmask"), command.netmask);
        if (command.mtu != 0)
            iface.insert(key("mtu"), command.mtu);
        if (command.up)
            iface.insert(key("up"), true);
    } else {
        QJsonArray addresses = iface.value(key("inet6")).toArray();
        if (!addresses.contains(command.address))
            addresses.append(command.address);
        iface.insert(key("inet6"), addresses);
    }
    interfaces.insert(command.name, iface);
    host.insert(key("interfaces"), interfaces);
    return {};
}

Result simulatedNetworksetup(QJsonObject &host, QStringList args)
{
    const Result invalid = failure(key("** Error: The parameters were not valid.\n"), 4);
    QJsonArray services = host.value(key("services")).toArray();
    if (args == QStringList{key("-listallnetworkservices")}) {
        QString text = key("An asterisk (*) denotes that a network service is disabled.\n");
        for (const QJsonValue &value : std::as_const(services)) {
            const QJsonObject s = value.toObject();
            text += (s.value(key("enabled")).toBool() ? QString() : key("*")) +
                    s.value(key("name")).toString() + QLatin1Char('\n');
        }
        return {0, text, QString()};
    }
    if (args.size() < 2 || (args.at(0) != QLatin1String("-getdnsservers") &&
                            args.at(0) != QLatin1String("-setdnsservers")))
        return invalid;

    const QString command = args.takeFirst();
    const QString name = args.takeFirst();
    int index = -1;
    for (int i = 0; i < services.size(); ++i) {
        if (services.at(i).toObject().value(key("name")).toString() == name)
            index = i;
    }
    if (index < 0)
        return failure(invalid.err, 4,
                       QStringLiteral("%1 is not a recognized network service.\n").arg(name));
    QJsonObject s = services.at(index).toObject();

    if (command == QLatin1String("-getdnsservers")) {
        const QJsonArray dns = s.value(key("dns")).toArray();
        if (dns.isEmpty())
            return {0, QStringLiteral("There aren't any DNS Servers set on %1.\n").arg(name),
                    QString()};
        QString text;
        for (const QJsonValue &server : dns)
            text += server.toString() + QLatin1Char('\n');
        return {0, text, QString()};
    }

    if (args.isEmpty())
        return invalid;
    QJsonArray dns;
    if (args != QStringList{key("Empty")}) {
        for (const QString &server : std::as_const(args)) {
            if (QHostAddress(server).isNull())
                return failure(invalid.err, 4,
                               QStringLiteral("%1 is not a valid IP address.\n").arg(server));
            dns.append(server);
        }
    }
    s.insert(key("dns"), dns);
    services.replace(index, s);
    host.insert(key("services"), services);
    return {};
}
