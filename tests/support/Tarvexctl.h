#pragma once

#include <QCoreApplication>
#include <QDir>
#include <QProcess>
#include <QString>
#include <QStringList>

// Runs the command-line client as a user would and keeps what it printed.
struct CtlRun
{
    int exitCode = -1;
    QString out;
    QString err;
};

inline CtlRun runTarvexctl(const QStringList &arguments, const QByteArray &input = QByteArray(),
                           int timeoutMs = 120000)
{
    QProcess process;
    process.start(
        QDir(QCoreApplication::applicationDirPath()).filePath(QStringLiteral("tarvexctl")),
        arguments);
    process.waitForStarted();
    process.write(input);
    process.closeWriteChannel();
    process.waitForFinished(timeoutMs);
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}
