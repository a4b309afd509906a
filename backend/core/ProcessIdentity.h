#pragma once

#include <QString>

// Tells one process from another that later gets the same pid: the boot and
// the moment the process started. (Not the program: a launcher may exec
// another.) Empty when no live process has that pid; a zombie counts as gone.
namespace ProcessIdentity {

QString of(qint64 pid);

} // namespace ProcessIdentity
