#pragma once

#include <QByteArray>
#include <QHash>
#include <QHostInfo>
#include <QString>

#include <functional>
#include <sys/types.h>

// Everything the backend touches on the host, in one place. A default-built
// value is the real macOS host; tests substitute stand-in tools, private
// directories and a scripted resolver, and nothing else differs.
struct MacHostEnvironment
{
    MacHostEnvironment();

    QString ifconfigTool;
    QString networksetupTool;
    QString dscacheutilTool;
    QString killallTool;
    QString pfctlTool;

    QString runtimeDir;
    QString upstreamSocketDir;
    QString hostsFile;
    QString journalDir;

    // Where the tunnel program is looked for. Empty means the running
    // executable's directory, asked for at the moment of the search.
    QString applicationDir;

    // The kernel's routing socket (PF_ROUTE, see RoutingSocket): one to
    // write on, nothing read from it, and one to listen on; -1 when it cannot
    // be had. One message written: 0, or the kernel's error number.
    std::function<int()> openRouteWriter;
    std::function<int()> openRouteListener;
    std::function<int(int socket, const QByteArray &message)> writeRoute;
    // The routing table as sysctl's NET_RT_DUMP2 hands it over, and the
    // interfaces by index (if_nameindex).
    std::function<bool(QByteArray *records)> dumpRoutes;
    std::function<QHash<uint, QString>()> interfaces;

    // Blocking name look-up through the system resolver.
    std::function<QHostInfo(const QString &)> lookupHost;

    // The user at the Mac: the owner of the console device.
    std::function<uid_t()> consoleOwner;
    // Whether a user belongs to the administrators' group.
    std::function<bool(uid_t)> isAdministrator;
};
