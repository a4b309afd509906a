#pragma once

#include "config/ParsedVpnConfig.h"

#include <QVariantMap>

// Turns a user's vpn:// connection string into a parsed configuration.
class VpnConfigParser
{
public:
    VpnConfigParser() = delete;

    static VpnConfigParseResult parseConfig(const QString &connectionString);
    static VpnConfigParseResult parsePeerConfig(const QVariantMap &peer);
};
