#pragma once

#include <QString>

#include <sys/types.h>

// A directory only the service may write to: what it holds is read back and
// acted on as root, or is what clients trust to be the service, so nobody
// else may have made it or be able to change it.
namespace PrivateDirectory {

// Creates the directory with the mode (0700 unless others are to reach into
// it) when it is missing. Refuses a symbolic link, anything that is not a
// directory, and a directory owned by anyone but the service's own user;
// sets the mode exactly.
bool ensure(const QString &path, QString *error, mode_t mode = 0700);

} // namespace PrivateDirectory
