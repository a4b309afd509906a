#include "ServerThread.h"

#include "TestClient.h"

#include "service/MacVpnServiceServer.h"

#include <QElapsedTimer>

ServerThread::ServerThread(QString socketPath, MacHostEnvironment env)
    : path(std::move(socketPath)), environment(std::move(env))
{
}

ServerThread::~ServerThread()
{
    quit();
    wait();
}

bool ServerThread::startServing()
{
    start();
    QElapsedTimer clock;
    clock.start();
    while (state.loadAcquire() == 0 && clock.elapsed() < 10000)
        QThread::msleep(5);
    return state.loadAcquire() == 1;
}

void ServerThread::run()
{
    MacVpnServiceServer server(path, environment);
    if (!server.start()) {
        state.storeRelease(-1);
        return;
    }
    state.storeRelease(1);
    exec();
}

QByteArray ServerThread::exchange(const QList<QByteArray> &pieces, int timeoutMs) const
{
    return exchangeRaw(path, pieces, timeoutMs);
}

QJsonObject ServerThread::request(const QJsonObject &message, int timeoutMs) const
{
    return exchangeJson(path, message, timeoutMs);
}
