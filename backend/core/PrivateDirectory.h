#pragma once

#include <QString>

// A directory only the service may write to: what it holds is read back and
// acted on as root, so nobody else may have made it or be able to change it.
namespace PrivateDirectory {

// Creates the directory (mode 0700) when it is missing. Refuses a symbolic
// link, anything that is not a directory, and a directory owned by anyone but
// the service's own user; tightens a looser mode.
bool ensure(const QString &path, QString *error);

} // namespace PrivateDirectory
