#include "service/LogFile.h"

#include "backend/core/AtomicFile.h"

#include <QDebug>
#include <QFile>

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr auto PidFile = "/var/run/com.tarvex.vpnservice.pid";

QByteArray pathOf(int fd)
{
    struct stat info = {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode))
        return QByteArray();
#ifdef Q_OS_MACOS
    char buffer[PATH_MAX] = {};
    return ::fcntl(fd, F_GETPATH, buffer) == 0 ? QByteArray(buffer) : QByteArray();
#else
    return QFile::encodeName(QFile::symLinkTarget(QStringLiteral("/proc/self/fd/%1").arg(fd)));
#endif
}

} // namespace

LogFile::LogFile() : path(pathOf(STDERR_FILENO))
{
    if (path.isEmpty())
        return;
    QString error;
    if (!AtomicFile::write(QLatin1String(PidFile), QByteArray::number(::getpid()) + '\n',
                           {::geteuid(), ::getegid(), 0644}, &error))
        qWarning() << "[LogFile] pid file not written" << error;
}

LogFile::~LogFile()
{
    // Only our own: a newer instance may have written its pid since.
    QFile pidFile{QLatin1String(PidFile)};
    if (!path.isEmpty() && pidFile.open(QIODevice::ReadOnly) &&
        pidFile.readAll().trimmed() == QByteArray::number(::getpid()))
        QFile::remove(QLatin1String(PidFile));
}

void LogFile::reopen()
{
    if (path.isEmpty())
        return;
    const int fd = ::open(path.constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
    if (fd < 0) {
        qWarning() << "[LogFile] log not reopened" << path << errno;
        return;
    }
    ::dup2(fd, STDOUT_FILENO);
    ::dup2(fd, STDERR_FILENO);
    ::close(fd);
    qInfo() << "[LogFile] log reopened" << path;
}
