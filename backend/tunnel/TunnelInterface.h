#pragma once

#include "backend/MacHostEnvironment.h"
#include "config/ParsedVpnConfig.h"

#include <QString>

// The utun's addresses and MTU, set with ifconfig. Nothing to undo: they go
// with the utun when the tunnel program closes it.
namespace TunnelInterface {

// Empty when done, else the user's message. The IPv6 address is best effort.
QString configure(const MacHostEnvironment &host, const QString &interfaceName,
                  const ParsedVpnConfig &config);

} // namespace TunnelInterface
