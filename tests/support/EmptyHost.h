#pragma once

#include "backend/MacHostEnvironment.h"

#include <QHostInfo>
#include <QTemporaryDir>

// A host where nothing exists but a hosts file's path: every tool, the tunnel
// program and the resolver fail at once, so the backend's own logic runs and
// nothing real is ever touched.
inline MacHostEnvironment emptyHost(const QTemporaryDir &dir)
{
    MacHostEnvironment env;
    for (QString *tool : {&env.ifconfigTool, &env.networksetupTool, &env.dscacheutilTool,
                          &env.killallTool, &env.pfctlTool})
        *tool = dir.filePath(QStringLiteral("absent-tool"));
    env.openRouteWriter = [] { return -1; };
    env.openRouteListener = [] { return -1; };
    env.dumpRoutes = [](QByteArray *) { return false; };
    env.interfaces = [] { return QHash<uint, QString>(); };
    env.runtimeDir = dir.filePath(QStringLiteral("run"));
    env.hostsFile = dir.filePath(QStringLiteral("hosts"));
    env.journalDir = dir.filePath(QStringLiteral("journal"));
    env.applicationDir = dir.path();
    env.lookupHost = [](const QString &name) {
        QHostInfo info;
        info.setHostName(name);
        info.setError(QHostInfo::HostNotFound);
        return info;
    };
    return env;
}
