#pragma once

#include "EmptyHost.h"

#include <QCoreApplication>

// The application the fuzz targets need, made once and kept quiet.
inline QCoreApplication &fuzzApplication()
{
    static int argc = 1;
    static char name[] = "fuzz";
    static char *argv[] = {name, nullptr};
    static QCoreApplication app(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    return app;
}
