#pragma once

#include <QString>

// Tells one process from another that later gets the same pid: the boot, the
// moment the process started and the program it runs. Empty when no live
// process has that pid (a zombie counts as gone).
namespace ProcessIdentity {

QString of(qint64 pid);

} // namespace ProcessIdentity
