#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

// Builds connection strings the way the server side of the product does:
// JSON, compressed in the qCompress format, URL-safe Base64 without padding.
inline QString encodeConnectionString(const QByteArray &json, bool prefix = true)
{
    const QByteArray packed =
        qCompress(json).toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals);
    return (prefix ? QStringLiteral("vpn://") : QString()) + QString::fromLatin1(packed);
}

inline QString encodeConnectionString(const QJsonObject &document, bool prefix = true)
{
    return encodeConnectionString(QJsonDocument(document).toJson(QJsonDocument::Compact), prefix);
}

// A document with one AmneziaWG container carrying the given client configuration.
inline QJsonObject awgDocument(const QJsonObject &lastConfig,
                               const QString &hostName = QStringLiteral("203.0.113.5"))
{
    const QJsonObject protocol{
        {QStringLiteral("last_config"),
         QString::fromUtf8(QJsonDocument(lastConfig).toJson(QJsonDocument::Compact))},
        {QStringLiteral("port"), QStringLiteral("51820")},
        {QStringLiteral("transport_proto"), QStringLiteral("udp")}};
    return {{QStringLiteral("containers"),
             QJsonArray{QJsonObject{{QStringLiteral("container"), QStringLiteral("amnezia-awg")},
                                    {QStringLiteral("awg"), protocol}}}},
            {QStringLiteral("defaultContainer"), QStringLiteral("amnezia-awg")},
            {QStringLiteral("description"), QStringLiteral("Test server")},
            {QStringLiteral("dns1"), QStringLiteral("1.1.1.1")},
            {QStringLiteral("dns2"), QStringLiteral("1.0.0.1")},
            {QStringLiteral("hostName"), hostName}};
}
