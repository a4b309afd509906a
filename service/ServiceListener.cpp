#include "service/ServiceListener.h"

#include <QFile>
#include <QFileInfo>
#include <QLocalSocket>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// Room for a burst of clients arriving together; the kernel caps it at its
// own limit (kern.ipc.somaxconn on macOS).
constexpr int ListenBacklog = 512;
// While there is no room, accepting is retried at this pace.
constexpr int FullRetryMs = 20;
// Accepted at a time before the clients already in are read again: under a
// flood, an honest client's request is read before a crowd of newcomers
// can push it out.
constexpr int AcceptBatch = 8;

QString systemError()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

} // namespace

ServiceListener::ServiceListener(QObject *parent) : QObject(parent)
{
    retry.setSingleShot(true);
    connect(&retry, &QTimer::timeout, this, [this] {
        if (notifier)
            notifier->setEnabled(true);
        acceptPending();
    });
    connect(&watcher, &QFileSystemWatcher::directoryChanged, this,
            &ServiceListener::checkSocketFile);
}

ServiceListener::~ServiceListener()
{
    close();
}

bool ServiceListener::listen(const QString &socketPath)
{
    close();
    const QByteArray encoded = QFile::encodeName(socketPath);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (size_t(encoded.size()) >= sizeof address.sun_path) {
        error = QStringLiteral("socket path too long");
        return false;
    }
    std::memcpy(address.sun_path, encoded.constData(), size_t(encoded.size()));

    fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) {
        error = systemError();
        return false;
    }
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    ::fcntl(fd, F_SETFL, O_NONBLOCK);
    struct stat info = {};
    // The client application runs unprivileged; the file mode is what lets it
    // in. It is set before listen() so that no client ever meets the
    // umask's mode: until then a connect is refused rather than denied.
    if (::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        ::chmod(encoded.constData(), 0666) != 0 || ::listen(fd, ListenBacklog) != 0 ||
        ::lstat(encoded.constData(), &info) != 0) {
        error = systemError();
        ::close(fd);
        fd = -1;
        return false;
    }
    path = socketPath;
    device = info.st_dev;
    inode = info.st_ino;
    notifier = std::make_unique<QSocketNotifier>(fd, QSocketNotifier::Read);
    connect(notifier.get(), &QSocketNotifier::activated, this, &ServiceListener::acceptPending);
    watcher.addPath(QFileInfo(socketPath).absolutePath());
    return true;
}

void ServiceListener::close()
{
    retry.stop();
    notifier.reset();
    if (!watcher.directories().isEmpty())
        watcher.removePaths(watcher.directories());
    qDeleteAll(pending);
    pending.clear();
    if (fd < 0)
        return;
    ::close(fd);
    fd = -1;
    // A newer instance may have taken the path over: its file must stay.
    struct stat info = {};
    const QByteArray encoded = QFile::encodeName(path);
    if (::lstat(encoded.constData(), &info) == 0 && info.st_dev == device && info.st_ino == inode)
        ::unlink(encoded.constData());
}

void ServiceListener::setAdmission(std::function<bool()> room, std::function<bool()> maker)
{
    roomForOneMore = std::move(room);
    makeRoom = std::move(maker);
}

QLocalSocket *ServiceListener::nextPendingConnection()
{
    return pending.isEmpty() ? nullptr : pending.takeFirst();
}

void ServiceListener::acceptPending()
{
    int accepted = 0;
    const auto pause = [this] {
        if (notifier)
            notifier->setEnabled(false);
        retry.start(FullRetryMs);
    };
    while (fd >= 0 && accepted < AcceptBatch) {
        if (roomForOneMore && !roomForOneMore()) {
            pause();
            break;
        }
        const int client = ::accept(fd, nullptr, nullptr);
        if (client >= 0) {
            ::fcntl(client, F_SETFD, FD_CLOEXEC);
            auto *socket = new QLocalSocket(this);
            socket->setSocketDescriptor(client);
            pending.append(socket);
            ++accepted;
            continue;
        }
        if (errno == EINTR || errno == ECONNABORTED)
            continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            break;
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            // The connection waits in the queue: take it once a descriptor is
            // freed, and when none can be, try again shortly rather than spin.
            if (makeRoom && makeRoom())
                continue;
            pause();
            break;
        }
        const QString reason = QStringLiteral("accept failed: %1").arg(systemError());
        close();
        Q_EMIT lost(reason);
        return;
    }
    if (accepted > 0)
        Q_EMIT newConnection();
}

void ServiceListener::checkSocketFile()
{
    if (fd < 0)
        return;
    struct stat info = {};
    QString reason;
    if (::lstat(QFile::encodeName(path).constData(), &info) != 0)
        reason = QStringLiteral("socket file removed");
    else if (info.st_dev != device || info.st_ino != inode)
        reason = QStringLiteral("socket file replaced");
    if (reason.isEmpty())
        return;
    watcher.removePaths(watcher.directories());
    Q_EMIT lost(reason);
}
