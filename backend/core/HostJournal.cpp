#include "backend/core/HostJournal.h"

#include "backend/core/AtomicFile.h"
#include "backend/core/PrivateDirectory.h"

#include <QDebug>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QThread>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr auto JournalFile = QLatin1String("host-changes.json");
constexpr auto LockFile = QLatin1String("lock");
// A journal is a few kilobytes; anything far larger was not written by us.
constexpr qint64 MaxJournalBytes = 4 * 1024 * 1024;

QString systemError()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

} // namespace

HostJournal::HostJournal(QString directory) : directory(std::move(directory)) {}

HostJournal::~HostJournal()
{
    if (lockFd >= 0)
        ::close(lockFd);
}

QString HostJournal::filePath() const
{
    return QDir(directory).filePath(JournalFile);
}

bool HostJournal::prepareDirectory(QString *error)
{
    directoryReady = directoryReady || PrivateDirectory::ensure(directory, error);
    return directoryReady;
}

bool HostJournal::lock(int timeoutMs)
{
    QString error;
    if (!prepareDirectory(&error)) {
        qWarning() << "[HostJournal] unusable journal directory" << error;
        return false;
    }
    if (lockFd < 0)
        lockFd = ::open(QFile::encodeName(QDir(directory).filePath(LockFile)).constData(),
                        O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (lockFd < 0) {
        qWarning() << "[HostJournal] cannot open the lock" << systemError();
        return false;
    }
    QElapsedTimer clock;
    clock.start();
    bool announced = false;
    while (::flock(lockFd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK || clock.elapsed() >= timeoutMs) {
            qWarning() << "[HostJournal] journal held by another instance";
            return false;
        }
        if (!announced)
            qInfo() << "[HostJournal] waiting for another instance to let go of the journal";
        announced = true;
        QThread::msleep(50);
    }
    return true;
}

QJsonObject HostJournal::load()
{
    saved.clear();
    const QByteArray path = QFile::encodeName(filePath());
    struct stat info = {};
    if (::lstat(path.constData(), &info) != 0) {
        qInfo() << "[HostJournal] no journal: nothing left to undo";
        return QJsonObject();
    }
    const auto ignore = [this](const char *why) {
        qWarning() << "[HostJournal] journal ignored:" << why << filePath();
        saved = QByteArrayLiteral("\0"); // so that the next save replaces it
        return QJsonObject();
    };
    if (!S_ISREG(info.st_mode))
        return ignore("not a regular file");
    if (info.st_uid != ::geteuid() || (info.st_mode & 0022) != 0)
        return ignore("not written by this service");
    if (info.st_size > MaxJournalBytes)
        return ignore("too large");

    QFile file(filePath());
    if (!file.open(QIODevice::ReadOnly))
        return ignore("unreadable");
    const QByteArray bytes = file.readAll();
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &parseError);
    if (bytes.trimmed().isEmpty())
        return ignore("empty");
    if (parseError.error != QJsonParseError::NoError || !document.isObject())
        return ignore("damaged");
    saved = bytes;
    return document.object();
}

bool HostJournal::save(const QJsonObject &state, QString *error)
{
    if (!prepareDirectory(error))
        return false;
    const QByteArray bytes =
        state.isEmpty() ? QByteArray() : QJsonDocument(state).toJson(QJsonDocument::Indented);
    if (bytes == saved)
        return true;
    if (bytes.isEmpty()) {
        if (::unlink(QFile::encodeName(filePath()).constData()) != 0 && errno != ENOENT) {
            *error = systemError();
            return false;
        }
    } else if (!AtomicFile::write(filePath(), bytes, {::geteuid(), ::getegid(), 0600}, error)) {
        return false;
    }
    saved = bytes;
    return true;
}
