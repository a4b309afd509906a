#pragma once

#include "config/ParsedVpnConfig.h"

#include <QString>
#include <QVariantMap>

// Checks every value a connect will hand to the tunnel program or to a host
// tool, before anything is started. Values arrive from any local user and
// end up as lines of the tunnel's configuration and as arguments of tools
// run as root, so each must be exactly what its field allows.
namespace ConnectValidator {

// Upper bounds on what one connect may ask for. A country's address ranges
// run to 15,000 prefixes; each costs a routing message, a journal line and a
// firewall table entry, and the connect holds up the service while it runs.
constexpr int MaxAllowedIps = 50000;
constexpr int MaxSplitTunnelEntries = 50000;
constexpr int MaxAmneziaPacketChars = 4096;

// The user-facing message naming the first field that is not acceptable,
// or an empty string when every value is.
QString problem(const ParsedVpnConfig &config, const QVariantMap &peer);

// Why "only selected" split tunnelling cannot go with a block of everything
// outside the tunnel: everything else would be blocked.
QString onlySelectedBlockedMessage();

} // namespace ConnectValidator
