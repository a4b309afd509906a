#include "client/ServiceClient.h"

#include "protocol/PeerCredentials.h"
#include "protocol/VpnServiceProtocol.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QLocalSocket>

ServiceReply exchangeWithService(const QJsonObject &request, int timeoutMs)
{
    ServiceReply reply;
    QLocalSocket socket;
    socket.connectToServer(VpnServiceProtocol::socketPath());
    if (!socket.waitForConnected(3000)) {
        reply.failure = socket.errorString();
        return reply;
    }
    if (PeerCredentials::uid(socket.socketDescriptor()).value_or(uid_t(-1)) != 0) {
        reply.genuine = false;
        reply.failure =
            QCoreApplication::translate(
                "ServiceClient", "Служба VPN не запущена или подменена: сокет %1 держит не она")
                .arg(VpnServiceProtocol::socketPath());
        return reply;
    }
    // A connect with a country's ranges runs to megabytes: written whole.
    socket.write(VpnServiceProtocol::encodeMessage(request));
    while (socket.bytesToWrite() > 0) {
        if (!socket.waitForBytesWritten(3000)) {
            reply.failure = socket.errorString();
            return reply;
        }
    }
    reply.reached =
        VpnServiceProtocol::readMessage(&socket, &reply.message, &reply.failure, timeoutMs);
    if (reply.reached)
        reply.line = QJsonDocument(reply.message).toJson(QJsonDocument::Compact);
    return reply;
}
