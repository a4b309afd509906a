#include "backend/core/HostJournal.h"

#include "backend/core/AtomicFile.h"
#include "backend/core/PrivateDirectory.h"

#include <QDebug>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
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

constexpr auto LockFile = QLatin1String("lock");
// 100,000 routes (50,000 allowed ranges and as many exclusions) take about
// 10 MB with the rest of the record; anything far larger was not written by us.
constexpr qint64 MaxJournalBytes = 64 * 1024 * 1024;

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

QString HostJournal::filePath(const File &file) const
{
    return QDir(directory).filePath(QLatin1String(file.name));
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

HostJournal::Records HostJournal::load()
{
    AtomicFile::removeTemporaries(filePath(session));
    AtomicFile::removeTemporaries(filePath(settings));
    return {load(session), load(settings)};
}

QJsonObject HostJournal::load(File &file)
{
    file.saved.clear();
    const QByteArray path = QFile::encodeName(filePath(file));
    struct stat info = {};
    if (::lstat(path.constData(), &info) != 0)
        return QJsonObject();
    const auto ignore = [this, &file](const char *why) {
        qWarning() << "[HostJournal] journal ignored:" << why << filePath(file);
        file.saved = QByteArrayLiteral("\0"); // so that the next save replaces it
        return QJsonObject();
    };
    if (!S_ISREG(info.st_mode))
        return ignore("not a regular file");
    if (info.st_uid != ::geteuid() || (info.st_mode & 0022) != 0)
        return ignore("not written by this service");
    if (info.st_size > MaxJournalBytes)
        return ignore("too large");

    QFile reader(filePath(file));
    if (!reader.open(QIODevice::ReadOnly))
        return ignore("unreadable");
    const QByteArray bytes = reader.readAll();
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &parseError);
    if (bytes.trimmed().isEmpty())
        return ignore("empty");
    if (parseError.error != QJsonParseError::NoError || !document.isObject())
        return ignore("damaged");
    file.saved = bytes;
    return document.object();
}

bool HostJournal::save(const Records &records, QString *error)
{
    return prepareDirectory(error) && save(session, records.session, false, error) &&
           save(settings, records.settings, true, error);
}

bool HostJournal::save(File &file, const QJsonObject &state, bool durable, QString *error)
{
    const QByteArray bytes =
        state.isEmpty() ? QByteArray() : QJsonDocument(state).toJson(QJsonDocument::Indented);
    if (bytes == file.saved)
        return true;
    if (bytes.isEmpty()) {
        if (::unlink(QFile::encodeName(filePath(file)).constData()) != 0 && errno != ENOENT) {
            *error = systemError();
            return false;
        }
        if (durable)
            AtomicFile::syncDirectoryOf(filePath(file));
    } else if (!AtomicFile::write(filePath(file), bytes, {::geteuid(), ::getegid(), 0600}, error,
                                  durable ? AtomicFile::Sync::Full : AtomicFile::Sync::None)) {
        return false;
    }
    file.saved = bytes;
    return true;
}

QString HostJournal::keepAside(Record which, int version)
{
    File &file = which == Record::Session ? session : settings;
    const QString base = QString::fromLatin1(file.name).chopped(5); // ".json"
    QString aside;
    for (int copy = 1; aside.isEmpty() || QFileInfo::exists(aside); ++copy)
        aside = QDir(directory).filePath(copy == 1 ? QStringLiteral("%1.v%2.json").arg(base).arg(version)
                                                   : QStringLiteral("%1.v%2-%3.json")
                                                         .arg(base)
                                                         .arg(version)
                                                         .arg(copy));
    if (::rename(QFile::encodeName(filePath(file)).constData(),
                 QFile::encodeName(aside).constData()) != 0) {
        qWarning() << "[HostJournal] a later release's record could not be kept aside"
                   << systemError();
        return QString();
    }
    AtomicFile::syncDirectoryOf(aside);
    file.saved.clear();
    return QFileInfo(aside).fileName();
}
