#pragma once

#include "backend/MacHostEnvironment.h"

#include <QCoreApplication>
#include <QDir>
#include <QHostInfo>
#include <QTemporaryDir>

// A host where nothing exists: every tool path, the tunnel program and the
// resolver fail at once, so fuzzed requests reach the backend's logic but
// nothing real is ever touched.
inline MacHostEnvironment emptyHost(const QTemporaryDir &dir)
{
    MacHostEnvironment env;
    for (QString *tool : {&env.ifconfigTool, &env.routeTool, &env.networksetupTool,
                          &env.dscacheutilTool, &env.killallTool})
        *tool = dir.filePath(QStringLiteral("absent-tool"));
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

inline QCoreApplication &fuzzApplication()
{
    static int argc = 1;
    static char name[] = "fuzz";
    static char *argv[] = {name, nullptr};
    static QCoreApplication app(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    return app;
}
