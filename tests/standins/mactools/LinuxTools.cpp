// Apply mode: the route and ifconfig commands are carried out on this Linux
// network namespace with ip(8), and answered in the macOS tools' words from
// the real state. Used where a real tunnel carries traffic.
#include "Commands.h"

#include <QProcess>
#include <QRegularExpression>

namespace {

struct IpResult
{
    bool ok;
    QString out;
    QString err;
};

IpResult ip(const QStringList &args)
{
    QProcess process;
    process.start(QStringLiteral("ip"), args);
    process.waitForFinished(5000);
    return {process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0,
            QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError()).trimmed()};
}

// Linux says "RTNETLINK answers: File exists"; macOS's route says it from its routing socket.
QString routingSocketError(const QString &linuxError)
{
    if (linuxError.contains(QLatin1String("File exists")))
        return QStringLiteral("File exists");
    if (linuxError.contains(QLatin1String("No such process")) ||
        linuxError.contains(QLatin1String("not found")))
        return QStringLiteral("not in table");
    if (linuxError.contains(QLatin1String("unreachable")) ||
        linuxError.contains(QLatin1String("Cannot find device")))
        return QStringLiteral("Network is unreachable");
    return linuxError;
}

} // namespace

Result appliedRoute(const RouteCommand &command)
{
    if (command.command == QLatin1String("get")) {
        // Only an exact route is looked up; macOS's fallback to a covering
        // route is not needed here.
        const bool v6 = command.family == QLatin1String("inet6");
        QStringList args{v6 ? QStringLiteral("-6") : QStringLiteral("-4"), QStringLiteral("route"),
                         QStringLiteral("show")};
        if (command.destination == QLatin1String("default"))
            args << QStringLiteral("default");
        else
            args << QStringLiteral("exact")
                 << (command.destination.contains(QLatin1Char('/'))
                         ? command.destination
                         : command.destination +
                               (v6 ? QStringLiteral("/128") : QStringLiteral("/32")));
        const IpResult shown = ip(args);
        static const QRegularExpression pattern(
            QStringLiteral("^(\\S+)(?: via (\\S+))? dev (\\S+)"));
        const QRegularExpressionMatch match = pattern.match(shown.out);
        if (!match.hasMatch())
            return failure(QStringLiteral("route: writing to routing socket: not in table\n"));
        QString text =
            QStringLiteral("   route to: %1\ndestination: %2\n")
                .arg(command.destination, match.captured(1).section(QLatin1Char('/'), 0, 0));
        if (!match.captured(2).isEmpty())
            text += QStringLiteral("    gateway: %1\n").arg(match.captured(2));
        text += QStringLiteral("  interface: %1\n      flags: <UP,DONE,STATIC>\n")
                    .arg(match.captured(3));
        return {0, text, QString()};
    }

    const bool ipv6 = command.family == QLatin1String("inet6");
    QString destination = command.destination;
    if (!destination.contains(QLatin1Char('/')))
        destination += ipv6 ? QStringLiteral("/128") : QStringLiteral("/32");
    QStringList args{ipv6 ? QStringLiteral("-6") : QStringLiteral("-4"), QStringLiteral("route"),
                     command.command == QLatin1String("add") ? QStringLiteral("add")
                                                             : QStringLiteral("del"),
                     destination};
    if (command.command == QLatin1String("add")) {
        if (command.interfaceName.isEmpty())
            args << QStringLiteral("via") << command.gateway;
        else
            args << QStringLiteral("dev") << command.interfaceName;
    }
    const IpResult done = ip(args);
    const QString via = command.interfaceName.isEmpty() ? command.gateway : command.interfaceName;
    if (!done.ok) {
        const QString reason = routingSocketError(done.err);
        const QString line = command.command == QLatin1String("add")
                                 ? QStringLiteral("add %1 %2: gateway %3: %4\n")
                                       .arg(command.word(), command.destination, via, reason)
                                 : QStringLiteral("delete %1 %2: %3\n")
                                       .arg(command.word(), command.destination, reason);
        return failure(QStringLiteral("route: writing to routing socket: %1\n").arg(reason), 1,
                       line);
    }
    return {0,
            command.command == QLatin1String("add")
                ? QStringLiteral("add %1 %2: gateway %3\n")
                      .arg(command.word(), command.destination, via)
                : QStringLiteral("delete %1 %2\n").arg(command.word(), command.destination),
            QString()};
}

Result appliedIfconfig(const IfconfigCommand &command)
{
    if (command.family == QLatin1String("list")) {
        const IpResult links =
            ip({QStringLiteral("-o"), QStringLiteral("link"), QStringLiteral("show")});
        QStringList names;
        static const QRegularExpression name(QStringLiteral("^\\d+: ([^:@]+)"),
                                             QRegularExpression::MultilineOption);
        for (auto it = name.globalMatch(links.out); it.hasNext();)
            names.append(it.next().captured(1));
        return {0, names.join(QLatin1Char(' ')) + QLatin1Char('\n'), QString()};
    }
    if (!ip({QStringLiteral("link"), QStringLiteral("show"), command.name}).ok)
        return failure(QStringLiteral("ifconfig: interface %1 does not exist\n").arg(command.name),
                       1);
    if (command.family.isEmpty())
        return {0, ip({QStringLiteral("addr"), QStringLiteral("show"), command.name}).out,
                QString()};

    const auto run = [](const QStringList &args) -> Result {
        const IpResult done = ip(args);
        return done.ok ? Result{} : failure(QStringLiteral("ifconfig: %1\n").arg(done.err), 1);
    };
    if (command.family == QLatin1String("inet6"))
        return run({QStringLiteral("-6"), QStringLiteral("addr"), QStringLiteral("add"),
                    command.address + QStringLiteral("/128"), QStringLiteral("dev"), command.name});

    QStringList address{QStringLiteral("-4"),  QStringLiteral("addr"),
                        QStringLiteral("add"), command.address + QStringLiteral("/32"),
                        QStringLiteral("dev"), command.name};
    if (command.destination != command.address)
        address << QStringLiteral("peer") << command.destination + QStringLiteral("/32");
    Result result = run(address);
    if (result.code != 0 && !result.err.contains(QLatin1String("File exists")))
        return result;
    QStringList link{QStringLiteral("link"), QStringLiteral("set"), command.name};
    if (command.mtu != 0)
        link << QStringLiteral("mtu") << QString::number(command.mtu);
    if (command.up)
        link << QStringLiteral("up");
    return run(link);
}
