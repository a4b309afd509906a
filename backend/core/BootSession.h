#pragma once

#include <QString>

// Which boot of the machine this is. What vanishes with a reboot (routes,
// utun interfaces, processes, pf's rules) is recorded with it, so that a
// record from an earlier boot is known to describe nothing any more.
namespace BootSession {

// kern.bootsessionuuid on macOS, the kernel's boot id on Linux; empty when
// it cannot be read.
QString current();

} // namespace BootSession
