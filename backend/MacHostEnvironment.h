#pragma once

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
    QString routeTool;
    QString netstatTool;
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

    // Blocking name look-up through the system resolver.
    std::function<QHostInfo(const QString &)> lookupHost;

    // The user at the Mac: the owner of the console device.
    std::function<uid_t()> consoleOwner;
    // Whether a user belongs to the administrators' group.
    std::function<bool(uid_t)> isAdministrator;
};
