#pragma once

#include <QString>

struct MacHostEnvironment;

// Where the routing socket and the routing table are, for the functions of
// MacHostEnvironment that reach them. On a Mac: socket(PF_ROUTE) and sysctl
// NET_RT_DUMP2. Linux has no PF_ROUTE; its builds reach a service that speaks
// macOS's routing messages (the stand-in kernel of tests/standins), in
// serviceDir: write.sock and listen.sock carry one message a packet, a write
// answered by the kernel's error number, and sysctl.sock hands over the table
// or the interfaces.
namespace RouteKernel {

constexpr auto ServiceDir = "/run/routing-socket";

void attach(MacHostEnvironment *environment, const QString &serviceDir = QLatin1String(ServiceDir));

} // namespace RouteKernel
