#include "backend/core/CommandRunner.h"

#include <QDebug>
#include <QProcess>

bool CommandRunner::run(const QString &program, const QStringList &arguments,
                        const QByteArray &input, QString *standardOutput, QString *standardError,
                        int timeoutMs, Log log)
{
    const bool everything = log == Log::Everything;
    if (everything)
        qInfo() << "[MacVpnBackend] runCommand" << program << arguments;

    QProcess process;
    process.start(program, arguments, QIODevice::ReadWrite);
    if (!process.waitForStarted(timeoutMs)) {
        if (standardError)
            *standardError = process.errorString();
        qWarning() << "[MacVpnBackend] command start failed" << program << process.errorString();
        return false;
    }
    if (!input.isEmpty())
        process.write(input);
    process.closeWriteChannel();

    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished(1000);
        if (standardError)
            *standardError = process.errorString();
        qWarning() << "[MacVpnBackend] command timeout" << program << process.errorString();
        return false;
    }

    const QString out = QString::fromUtf8(process.readAllStandardOutput());
    const QString err = QString::fromUtf8(process.readAllStandardError());
    if (everything) {
        qInfo() << "[MacVpnBackend] command finished" << program
                << "exitStatus=" << process.exitStatus() << "exitCode=" << process.exitCode();
        qInfo().noquote() << QLatin1String("[MacVpnBackend] command stdout =\n") + out.trimmed();
        qInfo().noquote() << QLatin1String("[MacVpnBackend] command stderr =\n") + err.trimmed();
    }

    if (standardOutput)
        *standardOutput = out;
    if (standardError)
        *standardError = err;

    if (process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0)
        return true;

    qWarning() << "[MacVpnBackend] command failed" << program << arguments
               << "exitCode=" << process.exitCode() << "stderr=" << err.trimmed();
    return false;
}
