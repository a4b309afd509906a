#pragma once

#include "backend/MacHostEnvironment.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QThread>

// Runs the real request server on its own thread and event loop, on a private
// socket path, so a test can talk to it as a blocking client would.
class ServerThread : public QThread
{
public:
    ServerThread(QString socketPath, MacHostEnvironment environment);
    ~ServerThread() override;

    bool startServing();
    QString socketPath() const { return path; }

    // One exchange: writes the bytes (in pieces, with pauses, when several are
    // given) and returns the raw reply line, or an empty array on time-out.
    QByteArray exchange(const QList<QByteArray> &pieces, int timeoutMs = 30000) const;
    QJsonObject request(const QJsonObject &message, int timeoutMs = 30000) const;

protected:
    void run() override;

private:
    const QString path;
    const MacHostEnvironment environment;
    QAtomicInt state = 0; // 0 starting, 1 listening, -1 failed
};
