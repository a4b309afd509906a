// A stand-in for the macOS network tools, run under their own names:
// route, ifconfig, networksetup, dscacheutil and killall. It keeps the host it
// pretends to be in MACSIM_STATE_DIR (see SimHost.h) and answers in the
// formats of the real tools as far as the service reads them.
//
// With MACSIM_APPLY set, route and ifconfig act on this Linux network
// namespace instead (see LinuxTools.cpp); DNS stays simulated.
//
// "mactools reset" starts a simulated host afresh, for scripts.
#include "Commands.h"
#include "SimHost.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QThread>

#include <csignal>
#include <cstdio>
#include <unistd.h>

namespace {

Result run(const QString &tool, const QStringList &args, const QString &dir)
{
    if (tool == QLatin1String("dscacheutil")) {
        if (args != QStringList{QStringLiteral("-flushcache")})
            return failure(QStringLiteral("Usage: dscacheutil -flushcache\n"), 64);
        SimHost::increment(dir, QStringLiteral("flushcache"));
        return {};
    }
    if (tool == QLatin1String("killall")) {
        if (args != QStringList{QStringLiteral("-HUP"), QStringLiteral("mDNSResponder")})
            return failure(QStringLiteral("No matching processes belonging to you were found\n"),
                           1);
        SimHost::increment(dir, QStringLiteral("mDNSResponderHUP"));
        return {};
    }

    const bool apply = !qEnvironmentVariableIsEmpty("MACSIM_APPLY");
    QJsonObject host = SimHost::load(dir);
    Result result;
    if (tool == QLatin1String("route")) {
        RouteCommand command;
        if (!parseRoute(args, &command, &result))
            return result;
        result = apply ? appliedRoute(command) : simulatedRoute(host, command);
    } else if (tool == QLatin1String("ifconfig")) {
        IfconfigCommand command;
        if (!parseIfconfig(args, &command, &result))
            return result;
        result = apply ? appliedIfconfig(command) : simulatedIfconfig(host, command);
    } else if (tool == QLatin1String("networksetup")) {
        result = simulatedNetworksetup(host, args);
    } else {
        return failure(QStringLiteral("mactools: unknown tool %1\n").arg(tool), 127);
    }
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
    if (tool == QLatin1String("mactools") && args == QStringList{QStringLiteral("reset")}) {
        SimHost::reset(dir);
        return 0;
    }

    const bool monitor = tool == QLatin1String("route") &&
                         args.filter(QStringLiteral("monitor")).size() == 1 && args.size() <= 2;
    Result result;
    bool hang = false;
    QString kill;
    {
        SimHost::Lock lock(dir);
        SimHost::logCall(dir, QStringList{tool} + args);
        kill = SimHost::killPoint(dir, int(SimHost::calls(dir).size()));
        const QString fault =
            SimHost::faultFor(dir, (QStringList{tool} + args).join(QLatin1Char(' ')));
        if (kill == QLatin1String("before"))
            ::kill(::getppid(), SIGKILL);
        else if (fault == QLatin1String("fail"))
            result = failure(QStringLiteral("%1: simulated failure\n").arg(tool), 1);
        else if (fault == QLatin1String("garble"))
            result = {0, QStringLiteral("%1: unexpected output\n\tno fields here\n").arg(tool),
                      QString()};
        else if (fault == QLatin1String("hang"))
            hang = true;
        else if (!monitor)
            result = run(tool, args, dir);
    }
    if (!kill.isEmpty())
        ::kill(::getppid(), SIGKILL);
    if (monitor && result.code == 0 && result.out.isEmpty())
        return routeMonitor(dir);
    if (hang) {
        QThread::sleep(30); // well past every time-out of the service
        return 0;
    }
    std::fputs(result.out.toLocal8Bit().constData(), stdout);
    std::fputs(result.err.toLocal8Bit().constData(), stderr);
    return result.code;
}
