#pragma once

#include "backend/MacVpnBackend.h"
#include "service/AccessPolicy.h"
#include "service/ClientConnections.h"
#include "service/LogBudget.h"
#include "service/RefusalLog.h"
#include "service/RequestBuffers.h"
#include "service/ServiceListener.h"
#include "service/StartupRecovery.h"

#include <QJsonObject>
#include <QObject>
#include <QString>

#include <sys/types.h>

class QLocalSocket;

// Owns the service socket and the one backend. Each client connection
// carries one request line and gets one reply line.
class MacVpnServiceServer : public QObject
{
    Q_OBJECT

public:
    explicit MacVpnServiceServer(QObject *parent = nullptr);
    // Serves on another path against another host: how tests reach the very
    // same server code without touching the machine.
    MacVpnServiceServer(QString socketPath, MacHostEnvironment environment,
                        QObject *parent = nullptr);

    bool start();

private:
    void handleNewConnection();
    void handleReadyRead(QLocalSocket *socket);
    QJsonObject handleRequest(const QJsonObject &request, uid_t caller);
    QJsonObject statusResponse(bool ok, const QString &error, uid_t caller) const;
    QJsonObject alwaysOnResponse(const QJsonObject &request, uid_t caller);
    void writeResponse(QLocalSocket *socket, const QJsonObject &response);

    const QString path;
    ServiceListener localServer;
    const AccessPolicy access;
    MacVpnBackend backend;
    QJsonObject lastPeer;
    uid_t lastPeerOwner = 0; // who made the connect whose settings lastPeer holds
    LogBudget clientLog;
    RefusalLog refusals;
    ClientConnections clients;
    RequestBuffers requests;
    StartupRecovery recovery; // before the backend goes, its thread has ended
};
