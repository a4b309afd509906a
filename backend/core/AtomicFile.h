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

// How far a write is taken before it returns. A flush to stable storage
// costs 5-10 ms on a Mac (F_FULLFSYNC), so each write asks for what it needs:
//   None  atomic against a crash of the process, which leaves the page cache
//         intact; a power cut may lose it or leave it torn.
//   Data  the new bytes reach stable storage before they replace the old
//         ones: never torn, though a power cut may still bring back the old
//         file, until the next full flush of the disk makes the rename last.
//   Full  the rename reaches stable storage too.
enum class Sync { None, Data, Full };

// Writes with the given owner, group and mode.
bool write(const QString &path, const QByteArray &bytes, const Ownership &ownership, QString *error,
           Sync sync = Sync::Full);

// Writes with the owner, group and mode the file has now.
bool replace(const QString &path, const QByteArray &bytes, QString *error, Sync sync = Sync::Full);

// Makes the directory entries of the file's directory (a rename, an unlink)
// last, with a flush to stable storage.
void syncDirectoryOf(const QString &file);

// Removes the temporary files a write cut short by a crash left beside the file.
void removeTemporaries(const QString &file);

// How many flushes to stable storage the service has made, for the benchmarks.
int flushCount();

} // namespace AtomicFile
