#pragma once

#include "config/ParsedVpnConfig.h"

#include <QJsonArray>
#include <QJsonObject>

// Fixed 32-byte keys in the standard Base64 of client configurations, with
// their hexadecimal forms as the configuration protocol carries them.
namespace TestKeys {
inline const char *ClientPrivate = "ZVoO6oBGlRDVRhz2TrciUtBetVKg5gtm+L/V+7S4Tno=";
inline const char *ClientPrivateHex =
    "655a0eea80469510d5461cf64eb72252d05eb552a0e60b66f8bfd5fbb4b84e7a";
inline const char *ServerPublic = "jGYfq/MqYAM+o/7X1TmLrBSrwA+43aECWlUk9pbHyjE=";
inline const char *ServerPublicHex =
    "8c661fabf32a60033ea3fed7d5398bac14abc00fb8dda1025a5524f696c7ca31";
inline const char *Preshared = "69jW5IHGMQhdpBFoVUGVCLNl5HaTHs9cPlMxmhw271Q=";
inline const char *PresharedHex =
    "ebd8d6e481c631085da4116855419508b365e476931ecf5c3e53319a1c36ef54";
} // namespace TestKeys

// A client configuration as the parser would produce it for an AmneziaWG
// container, with every key the service reads.
inline ParsedVpnConfig clientConfig(const QJsonObject &overrides = QJsonObject())
{
    QJsonObject last{
        {QStringLiteral("client_ip"), QStringLiteral("10.8.1.2/32")},
        {QStringLiteral("client_priv_key"), QLatin1String(TestKeys::ClientPrivate)},
        {QStringLiteral("server_pub_key"), QLatin1String(TestKeys::ServerPublic)},
        {QStringLiteral("psk_key"), QLatin1String(TestKeys::Preshared)},
        {QStringLiteral("hostName"), QStringLiteral("203.0.113.5")},
        {QStringLiteral("port"), 51820},
        {QStringLiteral("mtu"), QStringLiteral("1420")},
        {QStringLiteral("persistent_keep_alive"), QStringLiteral("25")},
        {QStringLiteral("allowed_ips"),
         QJsonArray{QStringLiteral("0.0.0.0/0"), QStringLiteral("::/0")}},
        {QStringLiteral("Jc"), QStringLiteral("4")},
        {QStringLiteral("Jmin"), QStringLiteral("40")},
        {QStringLiteral("Jmax"), QStringLiteral("70")},
    };
    for (auto it = overrides.begin(); it != overrides.end(); ++it) {
        if (it.value().isNull())
            last.remove(it.key());
        else
            last.insert(it.key(), it.value());
    }
    ParsedVpnConfig config;
    config.container = QStringLiteral("amnezia-awg");
    config.protocolName = QStringLiteral("awg");
    config.lastConfig = last;
    config.hostName = QStringLiteral("203.0.113.5");
    config.dns1 = QStringLiteral("1.1.1.1");
    config.dns2 = QStringLiteral("1.0.0.1");
    return config;
}
