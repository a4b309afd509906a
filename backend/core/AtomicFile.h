#pragma once

#include <QByteArray>
#include <QString>

#include <sys/types.h>

// Replaces a file's contents so that a crash, a full disk or a failed write
// leaves either the old file or the new one, never a torn one: the bytes go
// to a temporary file in the same directory, are flushed to disk, and the
// temporary file is renamed over the target.
namespace AtomicFile {

struct Ownership
{
    uid_t owner;
    gid_t group;
    mode_t mode;
};

// Writes with the given owner, group and mode.
bool write(const QString &path, const QByteArray &bytes, const Ownership &ownership,
           QString *error);

// Writes with the owner, group and mode the file has now.
bool replace(const QString &path, const QByteArray &bytes, QString *error);

} // namespace AtomicFile
