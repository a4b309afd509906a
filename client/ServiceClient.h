#pragma once

#include <QJsonObject>
#include <QString>

// One request/reply exchange with the service over its socket.
struct ServiceReply
{
    bool reached = false; // the service answered with a message
    QString failure;      // why not, when it did not
    QByteArray line;      // the reply as received, without its line feed
    QJsonObject message;
};

ServiceReply exchangeWithService(const QJsonObject &request, int timeoutMs);
