#include "backend/core/PrivateDirectory.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace PrivateDirectory {

bool ensure(const QString &path, QString *error, mode_t mode)
{
    const QByteArray encoded = QFile::encodeName(path);
    QDir().mkpath(QFileInfo(path).absolutePath());
    if (::mkdir(encoded.constData(), mode) != 0 && errno != EEXIST) {
        *error = QStringLiteral("%1: %2").arg(path, QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    struct stat info = {};
    if (::lstat(encoded.constData(), &info) != 0 || !S_ISDIR(info.st_mode) ||
        info.st_uid != ::geteuid()) {
        *error = QStringLiteral("%1: not a directory of this service's own").arg(path);
        return false;
    }
    // Exactly the mode, whatever the umask made of it.
    if ((info.st_mode & 07777) != mode && ::chmod(encoded.constData(), mode) != 0) {
        *error = QStringLiteral("%1: %2").arg(path, QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    return true;
}

} // namespace PrivateDirectory
