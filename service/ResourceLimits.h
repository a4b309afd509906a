#pragma once

// What the service needs of the system's limits, asked for at start-up.
namespace ResourceLimits {

// A macOS daemon starts with 256 descriptors. The service needs one per
// client (at most 64), a few per child process while a tool or the tunnel
// program runs, and some for name lookups, the journal and its sockets.
constexpr int Descriptors = 512;

void raiseDescriptorLimit();

} // namespace ResourceLimits
