#pragma once

#include <QLatin1String>

// Fixed locations and names of the macOS host. Production never changes them;
// only MacHostEnvironment copies them, and tests override that copy.
namespace {

constexpr auto TunnelBinaryName = QLatin1String("amneziawg-go");
// Root's own: it holds the tunnel's configuration socket, so no other user
// may be able to create it first, as anyone can under /tmp.
constexpr auto RuntimeDir = QLatin1String("/var/run/tarvex-amneziawg");
constexpr auto InterfacePrefix = QLatin1String("amn0");
// Where a tunnel program built without our socket directory listens instead:
// the userspace WireGuard default, fixed when the program is built.
constexpr auto UpstreamSocketDir = QLatin1String("/var/run/wireguard");
constexpr auto DefaultIpv6Address = QLatin1String("fd58:baa6:dead::1");
constexpr auto HostsFilePath = QLatin1String("/etc/hosts");
constexpr auto HostsBeginMarker = QLatin1String("# BEGIN TARVEX_VPN_CLIENT");
constexpr auto HostsEndMarker = QLatin1String("# END TARVEX_VPN_CLIENT");
// Root's own, and kept across a reboot: DNS settings and /etc/hosts survive
// one, so what the service did to them must too.
constexpr auto JournalDir = QLatin1String("/Library/Application Support/Tarvex/VpnService/Journal");

// The organisation's own domain: the service announces it at start-up and the
// control-plane bypass falls back to it.
constexpr auto OrganizationDomain = QLatin1String("tarvex.com");

constexpr auto IfconfigTool = QLatin1String("/sbin/ifconfig");
constexpr auto NetworksetupTool = QLatin1String("/usr/sbin/networksetup");
constexpr auto DscacheutilTool = QLatin1String("/usr/bin/dscacheutil");
constexpr auto KillallTool = QLatin1String("/usr/bin/killall");
constexpr auto PfctlTool = QLatin1String("/sbin/pfctl");

// The kill switch's pf rules live in an anchor that the stock /etc/pf.conf
// already evaluates: its "anchor \"com.apple/*\"" reaches one level down and
// no further, and an anchor nothing references loads without error and is
// never evaluated. Named to come before Apple's own anchors there.
constexpr auto KillSwitchAnchor = QLatin1String("com.apple/050.tarvex.killswitch");

// Who may command the service besides root: the user at the console, and the
// members of the administrators' group.
constexpr auto ConsoleDevice = QLatin1String("/dev/console");
constexpr auto AdministratorsGroup = QLatin1String("admin");

// Every host tool gets the same allowance to start and, separately, to run.
constexpr int CommandTimeoutMs = 5000;

} // namespace
