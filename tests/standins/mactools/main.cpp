// A stand-in for the macOS network tools, run under their own names:
// route, ifconfig, networksetup, dscacheutil and killall. It keeps the host it
// pretends to be in MACSIM_STATE_DIR (see SimHost.h) and answers in the
// formats of the real tools as far as the service reads them.
#include "SimHost.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QHostAddress>
#include <QHostInfo>
#include <QJsonArray>
#include <QThread>

#include <cstdio>

namespace {

struct Result
{
    int code = 0;
    QString out;
    QString err;
};

Result fail(const QString &err, int code = 1, const QString &out = QString())
{
    return {code, out, err};
}

QString key(const char *text)
{
    return QString::fromLatin1(text);
}

// ---- route ---------------------------------------------------------------

// Canonical form of a destination, so that deleting "10.0.0.0/8" finds what
// "10.0.0.0/8" added and "-host 1.2.3.4" finds a host route added with a gateway.
QString canonical(const QString &destination)
{
    if (destination == QLatin1String("default"))
        return destination;
    if (destination.contains(QLatin1Char('/'))) {
        const auto subnet = QHostAddress::parseSubnet(destination);
        if (subnet.first.isNull())
            return destination;
        return QStringLiteral("%1/%2").arg(subnet.first.toString()).arg(subnet.second);
    }
    const QHostAddress address(destination);
    return address.isNull() ? destination.toLower() : address.toString();
}

int findRoute(const QJsonArray &routes, const QString &family, const QString &type,
              const QString &destination)
{
    for (int i = 0; i < routes.size(); ++i) {
        const QJsonObject r = routes.at(i).toObject();
        if (r.value(key("family")).toString() == family && r.value(key("type")).toString() == type
            && canonical(r.value(key("destination")).toString()) == canonical(destination))
            return i;
    }
    return -1;
}

Result routeGetDefault(const QJsonObject &host)
{
    const QJsonArray routes = host.value(key("routes")).toArray();
    const int index = findRoute(routes, key("inet"), key("-net"), key("default"));
    if (index < 0)
        return fail(key("route: writing to routing socket: not in table\n"));
    const QJsonObject r = routes.at(index).toObject();
    Result result;
    result.out = QStringLiteral("   route to: default\n"
                                "destination: default\n"
                                "       mask: default\n"
                                "    gateway: %1\n"
                                "  interface: %2\n"
                                "      flags: <UP,GATEWAY,DONE,STATIC,PRCLONING,GLOBAL>\n"
                                " recvpipe  sendpipe  ssthresh  rtt,msec    rttvar  hopcount      mtu     expire\n"
                                "       0         0         0         0         0         0      1500         0\n")
                     .arg(r.value(key("gateway")).toString(), r.value(key("interface")).toString());
    return result;
}

Result route(QJsonObject &host, QStringList args)
{
    args.removeAll(key("-n"));
    args.removeAll(key("-q"));
    if (args.isEmpty())
        return fail(key("usage: route [-dnqtv] command [[modifiers] args]\n"), 64);
    const QString command = args.takeFirst();
    if (command == QLatin1String("get")) {
        if (args == QStringList{key("default")})
            return routeGetDefault(host);
        return fail(key("route: get: only the default route is simulated\n"), 64);
    }
    if (command != QLatin1String("add") && command != QLatin1String("delete"))
        return fail(QStringLiteral("route: %1: unknown command\n").arg(command), 64);

    QString family = key("inet");
    QString type;
    QString interfaceName;
    QStringList positional;
    while (!args.isEmpty()) {
        const QString arg = args.takeFirst();
        if (arg == QLatin1String("-inet6"))
            family = key("inet6");
        else if (arg == QLatin1String("-inet"))
            family = key("inet");
        else if (arg == QLatin1String("-net") || arg == QLatin1String("-host"))
            type = arg;
        else if (arg == QLatin1String("-interface") && !args.isEmpty())
            interfaceName = args.takeFirst();
        else if (arg.startsWith(QLatin1Char('-')))
            return fail(QStringLiteral("route: %1: unknown modifier\n").arg(arg), 64);
        else
            positional.append(arg);
    }
    if (positional.isEmpty())
        return fail(key("usage: route [-dnqtv] command [[modifiers] args]\n"), 64);

    QString destination = positional.takeFirst();
    if (type.isEmpty())
        type = destination.contains(QLatin1Char('/')) ? key("-net") : key("-host");
    const QString word = type.mid(1);

    // The real tool resolves host names itself.
    if (destination != QLatin1String("default") && !destination.contains(QLatin1Char('/'))
        && QHostAddress(destination).isNull()) {
        const QList<QHostAddress> resolved = QHostInfo::fromName(destination).addresses();
        if (resolved.isEmpty())
            return fail(QStringLiteral("route: bad address: %1\n").arg(destination), 68);
        destination = resolved.front().toString();
    }
    const QHostAddress parsed = QHostAddress::parseSubnet(destination.contains(QLatin1Char('/'))
                                                              ? destination
                                                              : destination + key("/0"))
                                    .first;
    const bool isV6 = parsed.protocol() == QAbstractSocket::IPv6Protocol;
    if (parsed.isNull() || isV6 != (family == QLatin1String("inet6")))
        return fail(QStringLiteral("route: bad address: %1\n").arg(destination), 68);

    QJsonArray routes = host.value(key("routes")).toArray();
    const int existing = findRoute(routes, family, type, destination);

    if (command == QLatin1String("delete")) {
        if (existing < 0)
            return fail(key("route: writing to routing socket: not in table\n"), 1,
                        QStringLiteral("delete %1 %2: not in table\n").arg(word, destination));
        routes.removeAt(existing);
        host.insert(key("routes"), routes);
        return {0, QStringLiteral("delete %1 %2\n").arg(word, destination), QString()};
    }

    QString gateway = positional.isEmpty() ? QString() : positional.takeFirst();
    if (!interfaceName.isEmpty()) {
        if (!host.value(key("interfaces")).toObject().contains(interfaceName))
            return fail(QStringLiteral("route: writing to routing socket: Network is unreachable\n"), 1,
                        QStringLiteral("add %1 %2: gateway %3: Network is unreachable\n")
                            .arg(word, destination, interfaceName));
        gateway = interfaceName;
    } else if (gateway.isEmpty()) {
        return fail(key("usage: route [-dnqtv] command [[modifiers] args]\n"), 64);
    } else if (QHostAddress(gateway).isNull()) {
        return fail(QStringLiteral("route: bad address: %1\n").arg(gateway), 68);
    }
    if (existing >= 0)
        return fail(key("route: writing to routing socket: File exists\n"), 1,
                    QStringLiteral("add %1 %2: gateway %3: File exists\n").arg(word, destination, gateway));
    routes.append(QJsonObject{{key("family"), family},
                              {key("destination"), destination},
                              {key("type"), type},
                              {key("gateway"), gateway},
                              {key("interface"), interfaceName.isEmpty() ? key("en0") : interfaceName}});
    host.insert(key("routes"), routes);
    return {0, QStringLiteral("add %1 %2: gateway %3\n").arg(word, destination, gateway), QString()};
}

// ---- ifconfig ------------------------------------------------------------

Result ifconfig(QJsonObject &host, QStringList args)
{
    QJsonObject interfaces = host.value(key("interfaces")).toObject();
    if (args == QStringList{key("-l")})
        return {0, interfaces.keys().join(QLatin1Char(' ')) + QLatin1Char('\n'), QString()};
    if (args.isEmpty())
        return fail(key("usage: ifconfig [-L] [-C] [-g] interface address_family [address [dest_address]]\n"), 1);

    const QString name = args.takeFirst();
    if (!interfaces.contains(name))
        return fail(QStringLiteral("ifconfig: interface %1 does not exist\n").arg(name), 1);
    QJsonObject iface = interfaces.value(name).toObject();
    if (args.isEmpty()) {
        QString text = QStringLiteral("%1: flags=%2 mtu %3\n")
                           .arg(name, iface.value(key("up")).toBool() ? key("8051<UP,POINTOPOINT,RUNNING,MULTICAST>")
                                                                       : key("8050<POINTOPOINT,RUNNING,MULTICAST>"))
                           .arg(iface.value(key("mtu")).toInt());
        if (iface.contains(key("inet")))
            text += QStringLiteral("\tinet %1 --> %2 netmask 0xffffffff\n")
                        .arg(iface.value(key("inet")).toString(), iface.value(key("dest")).toString());
        for (const QJsonValue &v6 : iface.value(key("inet6")).toArray())
            text += QStringLiteral("\tinet6 %1 prefixlen 128\n").arg(v6.toString());
        return {0, text, QString()};
    }

    const QString family = args.takeFirst();
    if (family == QLatin1String("inet")) {
        if (args.size() < 2)
            return fail(key("ifconfig: inet: address required\n"), 1);
        const QString address = args.takeFirst();
        const QString dest = args.takeFirst();
        if (QHostAddress(address).protocol() != QAbstractSocket::IPv4Protocol)
            return fail(QStringLiteral("ifconfig: %1: bad value\n").arg(address), 1);
        if (QHostAddress(dest).protocol() != QAbstractSocket::IPv4Protocol)
            return fail(QStringLiteral("ifconfig: %1: bad value\n").arg(dest), 1);
        QJsonObject changed = iface;
        changed.insert(key("inet"), address);
        changed.insert(key("dest"), dest);
        while (!args.isEmpty()) {
            const QString option = args.takeFirst();
            if (option == QLatin1String("up")) {
                changed.insert(key("up"), true);
            } else if (option == QLatin1String("netmask") && !args.isEmpty()) {
                const QString mask = args.takeFirst();
                if (QHostAddress(mask).protocol() != QAbstractSocket::IPv4Protocol)
                    return fail(QStringLiteral("ifconfig: %1: bad value\n").arg(mask), 1);
                changed.insert(key("netmask"), mask);
            } else if (option == QLatin1String("mtu") && !args.isEmpty()) {
                bool ok = false;
                const int mtu = args.takeFirst().toInt(&ok);
                if (!ok || mtu < 576 || mtu > 16384)
                    return fail(key("ifconfig: ioctl (set mtu): Invalid argument\n"), 1);
                changed.insert(key("mtu"), mtu);
            } else {
                return fail(QStringLiteral("ifconfig: %1: bad value\n").arg(option), 1);
            }
        }
        interfaces.insert(name, changed);
    } else if (family == QLatin1String("inet6")) {
        if (args.size() != 4 || args.at(1) != QLatin1String("prefixlen") || args.at(3) != QLatin1String("alias")
            || QHostAddress(args.at(0)).protocol() != QAbstractSocket::IPv6Protocol)
            return fail(QStringLiteral("ifconfig: %1: bad value\n").arg(args.join(QLatin1Char(' '))), 1);
        QJsonArray addresses = iface.value(key("inet6")).toArray();
        if (!addresses.contains(args.at(0)))
            addresses.append(args.at(0));
        iface.insert(key("inet6"), addresses);
        interfaces.insert(name, iface);
    } else {
        return fail(QStringLiteral("ifconfig: %1: bad value\n").arg(family), 1);
    }
    host.insert(key("interfaces"), interfaces);
    return {};
}

// ---- networksetup --------------------------------------------------------

Result networksetup(QJsonObject &host, QStringList args)
{
    QJsonArray services = host.value(key("services")).toArray();
    if (args == QStringList{key("-listallnetworkservices")}) {
        QString text = key("An asterisk (*) denotes that a network service is disabled.\n");
        for (const QJsonValue &value : std::as_const(services)) {
            const QJsonObject s = value.toObject();
            text += (s.value(key("enabled")).toBool() ? QString() : key("*"))
                    + s.value(key("name")).toString() + QLatin1Char('\n');
        }
        return {0, text, QString()};
    }
    if (args.size() < 2 || (args.at(0) != QLatin1String("-getdnsservers")
                            && args.at(0) != QLatin1String("-setdnsservers")))
        return fail(key("** Error: The parameters were not valid.\n"), 4);

    const QString command = args.takeFirst();
    const QString name = args.takeFirst();
    int index = -1;
    for (int i = 0; i < services.size(); ++i) {
        if (services.at(i).toObject().value(key("name")).toString() == name)
            index = i;
    }
    if (index < 0)
        return fail(key("** Error: The parameters were not valid.\n"), 4,
                    QStringLiteral("%1 is not a recognized network service.\n").arg(name));
    QJsonObject s = services.at(index).toObject();

    if (command == QLatin1String("-getdnsservers")) {
        const QJsonArray dns = s.value(key("dns")).toArray();
        if (dns.isEmpty())
            return {0, QStringLiteral("There aren't any DNS Servers set on %1.\n").arg(name), QString()};
        QString text;
        for (const QJsonValue &server : dns)
            text += server.toString() + QLatin1Char('\n');
        return {0, text, QString()};
    }

    if (args.isEmpty())
        return fail(key("** Error: The parameters were not valid.\n"), 4);
    QJsonArray dns;
    if (args != QStringList{key("Empty")}) {
        for (const QString &server : std::as_const(args)) {
            if (QHostAddress(server).isNull())
                return fail(key("** Error: The parameters were not valid.\n"), 4,
                            QStringLiteral("%1 is not a valid IP address.\n").arg(server));
            dns.append(server);
        }
    }
    s.insert(key("dns"), dns);
    services.replace(index, s);
    host.insert(key("services"), services);
    return {};
}

Result run(const QString &tool, const QStringList &args, const QString &dir)
{
    if (tool == QLatin1String("dscacheutil")) {
        if (args != QStringList{key("-flushcache")})
            return fail(key("Usage: dscacheutil -flushcache\n"), 64);
        SimHost::increment(dir, key("flushcache"));
        return {};
    }
    if (tool == QLatin1String("killall")) {
        if (args != QStringList{key("-HUP"), key("mDNSResponder")})
            return fail(key("No matching processes belonging to you were found\n"), 1);
        SimHost::increment(dir, key("mDNSResponderHUP"));
        return {};
    }

    QJsonObject host = SimHost::load(dir);
    Result result;
    if (tool == QLatin1String("route"))
        result = route(host, args);
    else if (tool == QLatin1String("ifconfig"))
        result = ifconfig(host, args);
    else if (tool == QLatin1String("networksetup"))
        result = networksetup(host, args);
    else
        return fail(QStringLiteral("mactools: unknown tool %1\n").arg(tool), 127);
    if (result.code == 0)
        SimHost::save(dir, host);
    return result;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QString tool = QFileInfo(QString::fromLocal8Bit(argv[0])).fileName();
    const QStringList args = app.arguments().mid(1);
    const QString dir = SimHost::stateDir();
    if (dir.isEmpty()) {
        std::fprintf(stderr, "%s: MACSIM_STATE_DIR is not set\n", qPrintable(tool));
        return 70;
    }

    // "mactools reset" starts a simulated host afresh, for scripts.
    if (tool == QLatin1String("mactools") && args == QStringList{key("reset")}) {
        SimHost::reset(dir);
        return 0;
    }

    Result result;
    {
        SimHost::Lock lock(dir);
        SimHost::logCall(dir, QStringList{tool} + args);
        const QString fault = SimHost::faultFor(dir, (QStringList{tool} + args).join(QLatin1Char(' ')));
        if (fault == QLatin1String("fail")) {
            result = fail(QStringLiteral("%1: simulated failure\n").arg(tool), 1);
        } else if (fault == QLatin1String("garble")) {
            result = {0, QStringLiteral("%1: unexpected output\n\tno fields here\n").arg(tool), QString()};
        } else if (fault == QLatin1String("hang")) {
            result.code = -1;
        } else {
            result = run(tool, args, dir);
        }
    }
    if (result.code == -1) {
        QThread::sleep(30); // well past every time-out of the service
        return 0;
    }
    std::fputs(result.out.toLocal8Bit().constData(), stdout);
    std::fputs(result.err.toLocal8Bit().constData(), stderr);
    return result.code;
}
