#pragma once

#include "backend/PlatformVpnBackend.h"
#include "config/ParsedVpnConfig.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>

class QIODevice;

// The wire format shared by the service and its clients: one compact JSON
// object per line, one exchange per connection.
class VpnServiceProtocol
{
public:
    VpnServiceProtocol() = delete;

    static QString socketPath();

    static QByteArray encodeMessage(const QJsonObject &message);
    static bool readMessage(QIODevice *device, QJsonObject *message, QString *error, int timeoutMs);
    static QString statusToString(PlatformVpnBackend::Status status);

    static QJsonObject parsedConfigToJson(const ParsedVpnConfig &config);
    static ParsedVpnConfig parsedConfigFromJson(const QJsonObject &json);
};
