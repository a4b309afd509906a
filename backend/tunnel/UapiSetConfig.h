#pragma once

#include "config/ParsedVpnConfig.h"

#include <QString>

// The set transaction that hands a connection to the tunnel program: its keys
// as hex, the AmneziaWG parameters under the protocol's lower-case names, the
// peer's endpoint (an address: a name would be resolved by the program
// itself, behind the block's back) and allowed ranges.
namespace UapiSetConfig {

QString text(const ParsedVpnConfig &config);

} // namespace UapiSetConfig
