#pragma once

#include "config/ParsedVpnConfig.h"

#include <QString>
#include <QStringList>
#include <QVariantList>
#include <QVariantMap>

#include <optional>

// What a connect asks for, read from the client's configuration and the peer
// map: pure values, nothing on the host touched.
namespace PeerValues {

struct SplitTunnel
{
    bool enabled = false;
    int mode = 0; // 1: only the entries through the tunnel; 2: all but the entries
    QVariantList entries;
    bool onlySelected() const { return enabled && mode == 1; }
    bool excluding() const { return enabled && mode == 2; }
};

// Opt-in, from the peer map's "killSwitch": nothing leaves outside the
// tunnel, from before the tunnel program starts until the user disconnects.
struct KillSwitch
{
    bool enabled = false;
    bool allowLan = false;
};

// On unless the peer map says "leakProtection": false: while connected,
// nothing leaves by another interface but what goes around the tunnel by
// design. Apple's own networks pass around it too unless the peer map says
// "appleAroundTunnel": false; under the kill switch only when it says true
// (see Firewall).
struct LeakProtection
{
    bool enabled = true;
    std::optional<bool> appleAroundTunnel;
};

QString endpointHost(const ParsedVpnConfig &config);
int endpointPort(const ParsedVpnConfig &config);
// Host and port as the configuration protocol writes them.
QString endpointOf(const ParsedVpnConfig &config);
QString clientIpv4(const ParsedVpnConfig &config);
QStringList allowedIps(const ParsedVpnConfig &config);
QString hexKey(const QString &key);
SplitTunnel splitTunnel(const QVariantMap &peer);
KillSwitch killSwitch(const QVariantMap &peer);
LeakProtection leakProtection(const QVariantMap &peer);

} // namespace PeerValues
