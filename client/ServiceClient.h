#pragma once

#include <QJsonObject>
#include <QString>

// One request/reply exchange with the service over its socket.
struct ServiceReply
{
    bool reached = false; // the service answered with a message
    bool genuine = true;  // false when something other than root's service held the socket
    QString failure;      // why not, when it did not
    QByteArray line;      // the reply as received, without its line feed
    QJsonObject message;
};

// Sends nothing unless the socket is held by root: a request may carry a
// connection's keys, and whoever else is listening there is not the service.
ServiceReply exchangeWithService(const QJsonObject &request, int timeoutMs);
