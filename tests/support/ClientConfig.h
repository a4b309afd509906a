#pragma once

#include "config/ParsedVpnConfig.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

// Fixed 32-byte keys in the standard Base64 of client configurations, with
// their hexadecimal forms as the configuration protocol carries them.
// clang-format off
namespace TestKeys {
inline const char *ClientPrivate = "ZVoO6oBGlRDVRhz2TrciUtBetVKg5gtm+L/V+7S4Tno=";
inline const char *ClientPrivateHex = "655a0eea80469510d5461cf64eb72252d05eb552a0e60b66f8bfd5fbb4b84e7a";
inline const char *ServerPublic = "jGYfq/MqYAM+o/7X1TmLrBSrwA+43aECWlUk9pbHyjE=";
inline const char *ServerPublicHex = "8c661fabf32a60033ea3fed7d5398bac14abc00fb8dda1025a5524f696c7ca31";
inline const char *Preshared = "69jW5IHGMQhdpBFoVUGVCLNl5HaTHs9cPlMxmhw271Q=";
inline const char *PresharedHex = "ebd8d6e481c631085da4116855419508b365e476931ecf5c3e53319a1c36ef54";
} // namespace TestKeys
// clang-format on

// A client configuration as the parser would produce it for an AmneziaWG
// container, with every key the service reads; a null override removes one.
inline ParsedVpnConfig clientConfig(const QJsonObject &overrides = QJsonObject())
{
    // clang-format off
    QJsonObject last{{"client_ip", "10.8.1.2/32"}, {"client_priv_key", TestKeys::ClientPrivate},
        {"server_pub_key", TestKeys::ServerPublic}, {"psk_key", TestKeys::Preshared},
        {"hostName", "203.0.113.5"}, {"port", 51820}, {"mtu", "1420"}, {"persistent_keep_alive", "25"},
        {"allowed_ips", QJsonArray{"0.0.0.0/0", "::/0"}}, {"Jc", "4"}, {"Jmin", "40"}, {"Jmax", "70"}};
    // clang-format on
    for (auto it = overrides.begin(); it != overrides.end(); ++it)
        it->isNull() ? void(last.remove(it.key())) : void(last.insert(it.key(), *it));
    ParsedVpnConfig config;
    config.container = "office-awg";
    config.protocolName = "awg";
    config.lastConfig = last;
    config.hostName = "203.0.113.5";
    config.dns1 = "1.1.1.1";
    config.dns2 = "1.0.0.1";
    return config;
}

// Connection strings as the server side of the product builds them: JSON,
// compressed in the qCompress format, URL-safe Base64 without padding.
inline QString encodeConnectionString(const QByteArray &json, bool prefix = true)
{
    return (prefix ? "vpn://" : "") +
           qCompress(json).toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals);
}

inline QString encodeConnectionString(const QJsonObject &document, bool prefix = true)
{
    return encodeConnectionString(QJsonDocument(document).toJson(QJsonDocument::Compact), prefix);
}

// A document with one AmneziaWG container carrying the given client configuration.
inline QJsonObject awgDocument(const QJsonObject &lastConfig)
{
    const QJsonObject protocol{
        {"last_config", QString(QJsonDocument(lastConfig).toJson(QJsonDocument::Compact))},
        {"port", "51820"},
        {"transport_proto", "udp"}};
    return {{"containers", QJsonArray{QJsonObject{{"container", "office-awg"}, {"awg", protocol}}}},
            {"defaultContainer", "office-awg"},
            {"description", "Test server"},
            {"dns1", "1.1.1.1"},
            {"dns2", "1.0.0.1"},
            {"hostName", "203.0.113.5"}};
}
