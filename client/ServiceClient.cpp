#include "client/ServiceClient.h"

#include "protocol/VpnServiceProtocol.h"

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
    socket.write(VpnServiceProtocol::encodeMessage(request));
    if (!socket.waitForBytesWritten(3000)) {
        reply.failure = socket.errorString();
        return reply;
    }
    reply.reached =
        VpnServiceProtocol::readMessage(&socket, &reply.message, &reply.failure, timeoutMs);
    if (reply.reached)
        reply.line = QJsonDocument(reply.message).toJson(QJsonDocument::Compact);
    return reply;
}
