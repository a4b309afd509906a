#pragma once

#include <QJsonObject>
#include <QString>

// One decoded VPN configuration: the whole document, the chosen container and
// protocol, and that protocol's client configuration already parsed.
struct ParsedVpnConfig
{
    QJsonObject rawConfig;
    QString defaultContainer;
    QString container;
    QString protocolName;
    QJsonObject protocolConfig;
    QString lastConfigRaw;
    QJsonObject lastConfig;
    QString hostName;
    QString dns1;
    QString dns2;
};

// What the connection-string parser hands back. A failed result keeps the
// fields that were filled before the failing step; callers decide by success.
struct VpnConfigParseResult
{
    bool success = false;
    QJsonObject rootObject;
    ParsedVpnConfig config;
    QString errorMessage;
};
