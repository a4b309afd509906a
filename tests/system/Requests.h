#pragma once

#include "ClientConfig.h"

#include "protocol/VpnServiceProtocol.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QStringList>

// The requests the system tests send, as the client application builds them.
inline const QJsonObject StatusRequest{{"command", "status"}};
inline const QJsonObject DisconnectRequest{{"command", "disconnect"}};

// A destination written "name|address" carries the address to fall back on.
inline QJsonObject peerFor(const ParsedVpnConfig &config, int splitMode = 0,
                           const QStringList &destinations = {})
{
    QJsonObject peer{{"config", encodeConnectionString(awgDocument(config.lastConfig))}};
    if (splitMode != 0) {
        QJsonArray entries;
        for (const QString &destination : destinations) {
            QJsonObject entry{{"value", destination.section('|', 0, 0)}};
            if (destination.contains('|'))
                entry.insert("ip", destination.section('|', 1));
            entries.append(entry);
        }
        peer.insert("splitTunnel",
                    QJsonObject{{"enabled", true}, {"mode", splitMode}, {"entries", entries}});
    }
    return peer;
}

inline QJsonObject connectRequest(const ParsedVpnConfig &config, const QJsonObject &peer)
{
    return {{"command", "connect"},
            {"config", VpnServiceProtocol::parsedConfigToJson(config)},
            {"peer", peer}};
}

inline QJsonObject connectRequest(const ParsedVpnConfig &config = clientConfig(), int splitMode = 0,
                                  const QStringList &destinations = {})
{
    return connectRequest(config, peerFor(config, splitMode, destinations));
}

inline QJsonObject killSwitchRequest(bool allowLan = false,
                                     const ParsedVpnConfig &config = clientConfig())
{
    QJsonObject peer = peerFor(config);
    peer.insert("killSwitch", QJsonObject{{"enabled", true}, {"allowLan", allowLan}});
    return connectRequest(config, peer);
}

inline QJsonObject reply(bool ok, const char *status, const QString &error = QString())
{
    return {{"ok", ok}, {"status", status}, {"error", error}};
}
