#include "backend/routes/RouteKernel.h"

#include "backend/MacHostEnvironment.h"

#include <QFile>

#include <cerrno>
#include <fcntl.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#ifdef Q_OS_MACOS
#include <net/route.h>
#include <sys/sysctl.h>
#else
#include <sys/un.h>
#endif

namespace RouteKernel {

namespace {

// A listener's buffer: the kernel drops what does not fit and says nothing.
constexpr int ListenerBufferBytes = 1024 * 1024;

int nonBlocking(int fd)
{
    if (fd >= 0)
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    return fd;
}

#ifdef Q_OS_MACOS

QHash<uint, QString> nameIndex()
{
    QHash<uint, QString> names;
    if (struct if_nameindex *list = ::if_nameindex()) {
        for (const struct if_nameindex *entry = list; entry->if_index != 0; ++entry)
            names.insert(entry->if_index, QString::fromLatin1(entry->if_name));
        ::if_freenameindex(list);
    }
    return names;
}

int routingSocket()
{
    const int fd = ::socket(PF_ROUTE, SOCK_RAW, 0);
    if (fd >= 0)
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    return fd;
}

// Its own messages are not echoed to it, and nothing is read from it:
// route(8) does the same before it writes.
int openWriter()
{
    const int fd = routingSocket();
    if (fd < 0)
        return -1;
    const int off = 0;
    ::setsockopt(fd, SOL_SOCKET, SO_USELOOPBACK, &off, sizeof off);
    ::shutdown(fd, SHUT_RD);
    return fd;
}

int openListener()
{
    const int fd = nonBlocking(routingSocket());
    if (fd >= 0)
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &ListenerBufferBytes, sizeof ListenerBufferBytes);
    return fd;
}

// The change is made inside the call, or errno says why not.
int write(int fd, const QByteArray &message)
{
    ssize_t written = 0;
    do
        written = ::write(fd, message.constData(), size_t(message.size()));
    while (written < 0 && errno == EINTR);
    return written == message.size() ? 0 : (written < 0 ? errno : EIO);
}

// As netstat reads it: the size, half as much again, and again should the
// table have grown meanwhile.
bool dump(QByteArray *records)
{
    int mib[] = {CTL_NET, PF_ROUTE, 0, 0, NET_RT_DUMP2, 0};
    for (int tries = 0; tries < 10; ++tries) {
        size_t needed = 0;
        if (::sysctl(mib, 6, nullptr, &needed, nullptr, 0) != 0)
            return false;
        records->resize(qsizetype(needed + needed / 2));
        size_t size = size_t(records->size());
        if (::sysctl(mib, 6, records->data(), &size, nullptr, 0) == 0) {
            records->resize(qsizetype(size));
            return true;
        }
        if (errno != ENOMEM)
            return false;
    }
    return false;
}

#else

int connectTo(const QString &path, bool blocking)
{
    const QByteArray name = QFile::encodeName(path);
    struct sockaddr_un address = {};
    if (size_t(name.size()) >= sizeof address.sun_path)
        return -1;
    address.sun_family = AF_UNIX;
    std::copy(name.cbegin(), name.cend(), address.sun_path);
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    return blocking ? fd : nonBlocking(fd);
}

int write(int fd, const QByteArray &message)
{
    qint32 error = EIO;
    if (::send(fd, message.constData(), size_t(message.size()), MSG_NOSIGNAL) != message.size() ||
        ::recv(fd, &error, sizeof error, 0) != sizeof error)
        return EIO;
    return error;
}

// One question, then the answer in packets until the service hangs up.
bool ask(const QString &dir, const QByteArray &question, QByteArray *answer)
{
    const int fd = connectTo(dir + QLatin1String("/sysctl.sock"), true);
    if (fd < 0)
        return false;
    bool done =
        ::send(fd, question.constData(), size_t(question.size()), MSG_NOSIGNAL) == question.size();
    QByteArray packet(65536, '\0');
    while (done) {
        const ssize_t got = ::recv(fd, packet.data(), size_t(packet.size()), 0);
        if (got <= 0) {
            done = got == 0;
            break;
        }
        answer->append(packet.constData(), got);
    }
    ::close(fd);
    return done;
}

#endif

} // namespace

void attach(MacHostEnvironment *environment, const QString &serviceDir)
{
#ifdef Q_OS_MACOS
    Q_UNUSED(serviceDir)
    environment->openRouteWriter = openWriter;
    environment->openRouteListener = openListener;
    environment->writeRoute = write;
    environment->dumpRoutes = dump;
    environment->interfaces = nameIndex;
#else
    environment->openRouteWriter = [serviceDir] {
        return connectTo(serviceDir + QLatin1String("/write.sock"), true);
    };
    environment->openRouteListener = [serviceDir] {
        return connectTo(serviceDir + QLatin1String("/listen.sock"), false);
    };
    environment->writeRoute = write;
    environment->dumpRoutes = [serviceDir](QByteArray *records) {
        records->clear();
        return ask(serviceDir, QByteArrayLiteral("NET_RT_DUMP2"), records);
    };
    environment->interfaces = [serviceDir] {
        QByteArray listing;
        QHash<uint, QString> names;
        if (!ask(serviceDir, QByteArrayLiteral("if_nameindex"), &listing))
            return names;
        for (const QByteArray &line : listing.split('\n')) {
            const qsizetype blank = line.indexOf(' ');
            if (blank > 0)
                names.insert(line.left(blank).toUInt(), QString::fromLatin1(line.mid(blank + 1)));
        }
        return names;
    };
#endif
}

} // namespace RouteKernel
