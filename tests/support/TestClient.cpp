#include "TestClient.h"

#include "protocol/VpnServiceProtocol.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QLocalSocket>
#include <QThread>

QByteArray exchangeRaw(const QString &path, const QList<QByteArray> &pieces, int timeoutMs)
{
    QLocalSocket socket;
    socket.connectToServer(path);
    if (!socket.waitForConnected(5000))
        return QByteArray();
    for (const QByteArray &piece : pieces) {
        socket.write(piece);
        socket.waitForBytesWritten(2000);
        if (pieces.size() > 1)
            QThread::msleep(50);
    }
    QByteArray reply;
    QElapsedTimer clock;
    clock.start();
    while (!reply.contains('\n') && clock.elapsed() < timeoutMs) {
        if (!socket.waitForReadyRead(100) && socket.state() != QLocalSocket::ConnectedState &&
            socket.bytesAvailable() == 0)
            break;
        reply += socket.readAll();
    }
    return reply;
}

QJsonObject exchangeJson(const QString &path, const QJsonObject &message, int timeoutMs)
{
    const QByteArray line =
        exchangeRaw(path, {VpnServiceProtocol::encodeMessage(message)}, timeoutMs);
    return QJsonDocument::fromJson(line.left(line.indexOf('\n'))).object();
}
