#include "ServerThread.h"

#include "protocol/VpnServiceProtocol.h"
#include "service/MacVpnServiceServer.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QLocalSocket>

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
    QLocalSocket socket;
    socket.connectToServer(path);
    if (!socket.waitForConnected(5000))
        return QByteArray();
    for (const QByteArray &piece : pieces) {
        socket.write(piece);
        socket.waitForBytesWritten(1000);
        if (pieces.size() > 1)
            QThread::msleep(50);
    }
    QByteArray reply;
    QElapsedTimer clock;
    clock.start();
    while (!reply.contains('\n') && clock.elapsed() < timeoutMs) {
        if (!socket.waitForReadyRead(100) && socket.state() != QLocalSocket::ConnectedState
            && socket.bytesAvailable() == 0)
            break;
        reply += socket.readAll();
    }
    return reply;
}

QJsonObject ServerThread::request(const QJsonObject &message, int timeoutMs) const
{
    QLocalSocket socket;
    socket.connectToServer(path);
    if (!socket.waitForConnected(5000))
        return QJsonObject();
    socket.write(VpnServiceProtocol::encodeMessage(message));
    socket.waitForBytesWritten(1000);
    QJsonObject reply;
    VpnServiceProtocol::readMessage(&socket, &reply, nullptr, timeoutMs);
    return reply;
}
