#include "backend/core/AtomicFile.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace AtomicFile {

namespace {

QString systemError(const char *step)
{
    return QStringLiteral("%1: %2").arg(QLatin1String(step),
                                        QString::fromLocal8Bit(std::strerror(errno)));
}

bool writeAll(int fd, const QByteArray &bytes)
{
    qsizetype done = 0;
    while (done < bytes.size()) {
        const ssize_t written = ::write(fd, bytes.constData() + done, size_t(bytes.size() - done));
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        done += written;
    }
    return true;
}

// On macOS fsync() leaves the data in the drive's cache, where a power cut
// loses it; only F_FULLFSYNC reaches stable storage. A file system that
// refuses it gets the best it offers.
std::atomic<int> flushes{0};

int flushToDisk(int fd)
{
    ++flushes;
#ifdef F_FULLFSYNC
    if (::fcntl(fd, F_FULLFSYNC) == 0)
        return 0;
#endif
    return ::fsync(fd);
}

// The directory entry of the rename must reach the disk too, or a power cut
// could bring back the old file after the service went on.
void syncDirectory(const QByteArray &directory)
{
    const int fd = ::open(directory.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return;
    flushToDisk(fd);
    ::close(fd);
}

} // namespace

int flushCount()
{
    return flushes;
}

void syncDirectoryOf(const QString &file)
{
    syncDirectory(QFile::encodeName(QFileInfo(file).absolutePath()));
}

void removeTemporaries(const QString &file)
{
    const QFileInfo target(file);
    const QStringList strays = target.dir().entryList(
        {QLatin1Char('.') + target.fileName() + QLatin1String(".tarvex-??????")},
        QDir::Files | QDir::Hidden | QDir::System);
    for (const QString &stray : strays) {
        qWarning() << "[AtomicFile] removing what a write cut short left" << stray;
        QFile::remove(target.dir().filePath(stray));
    }
}

bool write(const QString &path, const QByteArray &bytes, const Ownership &ownership, QString *error,
           Sync sync)
{
    // A symbolic link is replaced at what it points to, not turned into a file.
    const QString canonical = QFileInfo(path).canonicalFilePath();
    const QFileInfo target(canonical.isEmpty() ? path : canonical);
    const QByteArray directory = QFile::encodeName(target.absolutePath());
    QByteArray temporary =
        directory + "/." + QFile::encodeName(target.fileName()) + ".tarvex-XXXXXX";

    const int fd = ::mkstemp(temporary.data());
    if (fd < 0) {
        *error = systemError("create");
        return false;
    }
    bool ok = writeAll(fd, bytes);
    if (!ok)
        *error = systemError("write");
    if (ok && (::fchown(fd, ownership.owner, ownership.group) != 0 ||
               ::fchmod(fd, ownership.mode) != 0)) {
        *error = systemError("set owner");
        ok = false;
    }
    if (ok && sync != Sync::None && flushToDisk(fd) != 0) {
        *error = systemError("sync");
        ok = false;
    }
    ::close(fd);
    if (ok && ::rename(temporary.constData(), QFile::encodeName(target.absoluteFilePath())) != 0) {
        *error = systemError("rename");
        ok = false;
    }
    if (!ok) {
        ::unlink(temporary.constData());
        return false;
    }
    if (sync == Sync::Full)
        syncDirectory(directory);
    return true;
}

bool replace(const QString &path, const QByteArray &bytes, QString *error, Sync sync)
{
    struct stat info = {};
    if (::stat(QFile::encodeName(path).constData(), &info) != 0) {
        *error = systemError("stat");
        return false;
    }
    return write(path, bytes, {info.st_uid, info.st_gid, mode_t(info.st_mode & 07777)}, error,
                 sync);
}

} // namespace AtomicFile
