#include "Commands.h"

#include <QHostAddress>
#include <QHostInfo>

namespace {

const QString Usage = QStringLiteral("usage: route [-dnqtv] command [[modifiers] args]\n");

} // namespace

QString canonicalDestination(const QString &destination)
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

bool parseRoute(QStringList args, RouteCommand *command, Result *error)
{
    args.removeAll(QStringLiteral("-n"));
    args.removeAll(QStringLiteral("-q"));
    if (args.isEmpty()) {
        *error = failure(Usage, 64);
        return false;
    }
    command->command = args.takeFirst();
    if (command->command != QLatin1String("add") && command->command != QLatin1String("delete") &&
        command->command != QLatin1String("get")) {
        *error = failure(QStringLiteral("route: %1: unknown command\n").arg(command->command), 64);
        return false;
    }

    command->family = QStringLiteral("inet");
    QStringList positional;
    while (!args.isEmpty()) {
        const QString arg = args.takeFirst();
        if (arg == QLatin1String("-inet6") || arg == QLatin1String("-inet")) {
            command->family = arg.mid(1);
        } else if (arg == QLatin1String("-net") || arg == QLatin1String("-host")) {
            command->type = arg;
        } else if (arg == QLatin1String("-interface") && !args.isEmpty()) {
            command->interfaceName = args.takeFirst();
        } else if (arg.startsWith(QLatin1Char('-'))) {
            *error = failure(QStringLiteral("route: %1: unknown modifier\n").arg(arg), 64);
            return false;
        } else {
            positional.append(arg);
        }
    }
    if (positional.isEmpty()) {
        *error = failure(Usage, 64);
        return false;
    }
    QString destination = positional.takeFirst();
    if (destination == QLatin1String("default")) {
        command->destination = destination;
        command->type = QStringLiteral("-net");
        return command->command == QLatin1String("get") ||
               (*error = failure(QStringLiteral("route: default: only looked up here\n"), 64),
                false);
    }
    if (command->type.isEmpty())
        command->type = destination.contains(QLatin1Char('/')) ? QStringLiteral("-net")
                                                               : QStringLiteral("-host");

    // The real tool resolves host names itself.
    if (!destination.contains(QLatin1Char('/')) && QHostAddress(destination).isNull()) {
        const QList<QHostAddress> resolved = QHostInfo::fromName(destination).addresses();
        if (resolved.isEmpty()) {
            *error = failure(QStringLiteral("route: bad address: %1\n").arg(destination), 68);
            return false;
        }
        destination = resolved.front().toString();
    }
    const QString subnet =
        destination.contains(QLatin1Char('/')) ? destination : destination + QStringLiteral("/0");
    const QHostAddress parsed = QHostAddress::parseSubnet(subnet).first;
    if (parsed.isNull() || (parsed.protocol() == QAbstractSocket::IPv6Protocol) !=
                               (command->family == QLatin1String("inet6"))) {
        *error = failure(QStringLiteral("route: bad address: %1\n").arg(destination), 68);
        return false;
    }
    command->destination = destination;

    if (command->command == QLatin1String("get"))
        return true;
    if (command->command == QLatin1String("add") && command->interfaceName.isEmpty()) {
        command->gateway = positional.isEmpty() ? QString() : positional.takeFirst();
        if (command->gateway.isEmpty()) {
            *error = failure(Usage, 64);
            return false;
        }
        if (QHostAddress(command->gateway).isNull()) {
            *error = failure(QStringLiteral("route: bad address: %1\n").arg(command->gateway), 68);
            return false;
        }
    }
    return true;
}

bool parseIfconfig(QStringList args, IfconfigCommand *command, Result *error)
{
    const auto bad = [error](const QString &value) {
        *error = failure(QStringLiteral("ifconfig: %1: bad value\n").arg(value), 1);
        return false;
    };
    if (args == QStringList{QStringLiteral("-l")}) {
        command->family = QStringLiteral("list");
        return true;
    }
    if (args.isEmpty()) {
        *error = failure(QStringLiteral("usage: ifconfig [-L] [-C] [-g] interface address_family "
                                        "[address [dest_address]]\n"),
                         1);
        return false;
    }
    command->name = args.takeFirst();
    if (args.isEmpty())
        return true;
    command->family = args.takeFirst();
    if (command->family == QLatin1String("inet")) {
        if (args.size() < 2)
            return bad(QStringLiteral("inet"));
        command->address = args.takeFirst();
        command->destination = args.takeFirst();
        if (QHostAddress(command->address).protocol() != QAbstractSocket::IPv4Protocol)
            return bad(command->address);
        if (QHostAddress(command->destination).protocol() != QAbstractSocket::IPv4Protocol)
            return bad(command->destination);
        while (!args.isEmpty()) {
            const QString option = args.takeFirst();
            if (option == QLatin1String("up")) {
                command->up = true;
            } else if (option == QLatin1String("netmask") && !args.isEmpty()) {
                command->netmask = args.takeFirst();
                if (QHostAddress(command->netmask).protocol() != QAbstractSocket::IPv4Protocol)
                    return bad(command->netmask);
            } else if (option == QLatin1String("mtu") && !args.isEmpty()) {
                bool ok = false;
                command->mtu = args.takeFirst().toInt(&ok);
                if (!ok || command->mtu < 576 || command->mtu > 16384) {
                    *error =
                        failure(QStringLiteral("ifconfig: ioctl (set mtu): Invalid argument\n"), 1);
                    return false;
                }
            } else {
                return bad(option);
            }
        }
        return true;
    }
    if (command->family == QLatin1String("inet6")) {
        if (args.size() != 4 || args.at(1) != QLatin1String("prefixlen") ||
            args.at(3) != QLatin1String("alias") ||
            QHostAddress(args.at(0)).protocol() != QAbstractSocket::IPv6Protocol)
            return bad(args.join(QLatin1Char(' ')));
        command->address = args.at(0);
        return true;
    }
    return bad(command->family);
}
