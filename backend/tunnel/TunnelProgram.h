#pragma once

#include "backend/MacHostEnvironment.h"
#include "backend/core/HostRoom.h"

#include <QElapsedTimer>
#include <QJsonObject>
#include <QObject>
#include <QProcess>
#include <QString>

#include <functional>

// The tunnel program, amneziawg-go: found beside the service, started as a
// child, its utun and configuration socket waited for, spoken to over that
// socket, and stopped. Who it is goes to the journal before it starts (the
// program) and once it runs (pid and start time), so that the next start can
// stop it, and only it, after a crash. Whether it still holds a utun is the
// ownership test of every route through one.
class TunnelProgram : public QObject, public HostRoom
{
    Q_OBJECT

public:
    // record saves the journal before each step; false stops the step.
    TunnelProgram(const MacHostEnvironment &host, std::function<bool()> record,
                  QObject *parent = nullptr);

    QString find() const;
    // Empty when it runs and names its utun; else the user's message (none
    // when the journal said it already, or when cancelled() ended the wait).
    QString start(const QString &binary, const std::function<bool()> &cancelled);
    QString waitForName(const QString &nameFile, const std::function<bool()> &cancelled);
    void stop();
    // After a crash: the recorded program is no child of ours any more; it is
    // stopped by its pid, and only while that pid is still that process.
    void stopRecorded();

    bool holds(const QString &interfaceName) const;
    QString interfaceName() const { return tunnelInterface; }
    void forgetInterface() { tunnelInterface.clear(); }
    qint64 uptimeSeconds() const { return clock.isValid() ? clock.elapsed() / 1000 : 0; }

    // One exchange on the configuration socket, logged with keys hidden.
    QString command(const QString &payload);
    // The same without a log line: for the counters any caller may ask for.
    QString query(const QString &payload, int timeoutMs) const;

    void write(QJsonObject *session, QJsonObject *settings) const override;
    void read(const QJsonObject &session, const QJsonObject &settings) override;

    // How it ended, and the tail of what it printed.
    QString exitReport() const;

Q_SIGNALS:
    // It ended without being asked to.
    void exited();

private:
    QString socketPath() const;
    void drainOutput();
    QString failure();

    const MacHostEnvironment &host;
    const std::function<bool()> saveJournal;
    QProcess tunnelProcess;
    QString tunnelOutput;
    qint64 outputLogged = 0;
    QString runtimeDir;
    QString tunnelInterface;
    // The interface the program named, whether or not its socket then answered.
    QString namedInterface;
    QString program;
    qint64 pid = 0;
    QString identity;
    QElapsedTimer clock; // since it started
    bool stopping = false;
};
