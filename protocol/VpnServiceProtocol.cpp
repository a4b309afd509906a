#include "protocol/VpnServiceProtocol.h"

#include <QElapsedTimer>
#include <QIODevice>
#include <QJsonDocument>
#include <QJsonParseError>

#include <array>

namespace {

// In a directory only root may write to: anywhere any user may create files,
// as in /private/tmp, a local user could bind the path first and have the
// client hand it a connection's keys.
constexpr auto ServiceSocketPath = QLatin1String("/var/run/tarvex/vpn-service.sock");

// Parses the bytes before the first line feed; a valid document that is not an
// object still fails, with the parser's own (success) description.
bool decodeLine(const QByteArray &buffer, QJsonObject *message, QString *error)
{
    const QByteArray line = buffer.left(buffer.indexOf('\n'));
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(line, &parseError);
    if (parseError.error == QJsonParseError::NoError && document.isObject()) {
        if (message)
            *message = document.object();
        return true;
    }
    if (error)
        *error = parseError.errorString();
    return false;
}

} // namespace

QString VpnServiceProtocol::socketPath()
{
    return ServiceSocketPath;
}

QByteArray VpnServiceProtocol::encodeMessage(const QJsonObject &message)
{
    return QJsonDocument(message).toJson(QJsonDocument::Compact) + '\n';
}

bool VpnServiceProtocol::readMessage(QIODevice *device, QJsonObject *message, QString *error,
                                     int timeoutMs)
{
    QByteArray buffer;
    QElapsedTimer timer;
    timer.start();
    bool complete = false;
    while (!complete && timer.elapsed() < timeoutMs) {
        const QByteArray more = device->readAll();
        buffer += more;
        complete = more.contains('\n'); // a large reply is not searched again and again
        if (!complete)
            device->waitForReadyRead(100);
    }
    if (!complete) {
        if (error)
            *error = QStringLiteral("timeout");
        return false;
    }
    return decodeLine(buffer, message, error);
}

QString VpnServiceProtocol::statusToString(PlatformVpnBackend::Status status)
{
    static const std::array<const char *, 5> names = {"disconnected", "connecting", "connected",
                                                      "disconnecting", "error"};
    const auto index = static_cast<unsigned>(status);
    return index < names.size() ? QString::fromLatin1(names[index]) : QStringLiteral("unknown");
}

QJsonObject VpnServiceProtocol::parsedConfigToJson(const ParsedVpnConfig &config)
{
    return QJsonObject{
        {QStringLiteral("rawConfig"), config.rawConfig},
        {QStringLiteral("defaultContainer"), config.defaultContainer},
        {QStringLiteral("container"), config.container},
        {QStringLiteral("protocolName"), config.protocolName},
        {QStringLiteral("protocolConfig"), config.protocolConfig},
        {QStringLiteral("lastConfigRaw"), config.lastConfigRaw},
        {QStringLiteral("lastConfig"), config.lastConfig},
        {QStringLiteral("hostName"), config.hostName},
        {QStringLiteral("dns1"), config.dns1},
        {QStringLiteral("dns2"), config.dns2},
    };
}

ParsedVpnConfig VpnServiceProtocol::parsedConfigFromJson(const QJsonObject &json)
{
    ParsedVpnConfig config;
    config.rawConfig = json.value(QLatin1String("rawConfig")).toObject();
    config.defaultContainer = json.value(QLatin1String("defaultContainer")).toString();
    config.container = json.value(QLatin1String("container")).toString();
    config.protocolName = json.value(QLatin1String("protocolName")).toString();
    config.protocolConfig = json.value(QLatin1String("protocolConfig")).toObject();
    config.lastConfigRaw = json.value(QLatin1String("lastConfigRaw")).toString();
    config.lastConfig = json.value(QLatin1String("lastConfig")).toObject();
    config.hostName = json.value(QLatin1String("hostName")).toString();
    config.dns1 = json.value(QLatin1String("dns1")).toString();
    config.dns2 = json.value(QLatin1String("dns2")).toString();
    return config;
}
