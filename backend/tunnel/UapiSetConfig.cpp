#include "backend/tunnel/UapiSetConfig.h"

#include "backend/plan/PeerValues.h"

#include <QJsonObject>

namespace {

// AmneziaWG interface parameters: read under the client configuration's
// capitalised names, written under the protocol's lower-case keys.
constexpr const char *AmneziaParameters[] = {"Jc", "Jmin", "Jmax", "S1", "S2", "S3", "S4", "H1",
                                             "H2", "H3",   "H4",   "I1", "I2", "I3", "I4", "I5"};

QString stringMember(const QJsonObject &object, const char *key)
{
    return object.value(QLatin1String(key)).toString();
}

} // namespace

namespace UapiSetConfig {

QString text(const ParsedVpnConfig &config)
{
    const QJsonObject &client = config.lastConfig;

    QString text = QStringLiteral("set=1\n");
    const auto line = [&text](const QString &key, const QString &value) {
        text += key + QLatin1Char('=') + value + QLatin1Char('\n');
    };

    line(QStringLiteral("private_key"), PeerValues::hexKey(stringMember(client, "client_priv_key")));
    text += QLatin1String("replace_peers=true\n");
    for (const char *parameter : AmneziaParameters) {
        const QString value = stringMember(client, parameter);
        if (!value.isEmpty())
            line(QString::fromLatin1(parameter).toLower(), value);
    }
    line(QStringLiteral("public_key"), PeerValues::hexKey(stringMember(client, "server_pub_key")));
    const QString presharedKey = stringMember(client, "psk_key");
    if (!presharedKey.isEmpty())
        line(QStringLiteral("preshared_key"), PeerValues::hexKey(presharedKey));
    line(QStringLiteral("endpoint"), PeerValues::endpointOf(config));
    text += QLatin1String("replace_allowed_ips=true\n");
    const QJsonValue keepAlive = client.value(QLatin1String("persistent_keep_alive"));
    line(QStringLiteral("persistent_keepalive_interval"),
         keepAlive.isString() ? keepAlive.toString() : QStringLiteral("60"));
    const QStringList ranges = PeerValues::allowedIps(config);
    for (const QString &range : ranges)
        line(QStringLiteral("allowed_ip"), range);
    return text;
}

} // namespace UapiSetConfig
