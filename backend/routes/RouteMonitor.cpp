#include "backend/routes/RouteMonitor.h"

#include "backend/routes/RouteMessage.h"

#include <QCoreApplication>
#include <QDebug>

#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Larger than any routing message.
constexpr int MessageBytes = 4096;

} // namespace

RouteMonitor::RouteMonitor(const MacHostEnvironment &host, QObject *parent)
    : QObject(parent), host(host)
{
    settle.setSingleShot(true);
    connect(&settle, &QTimer::timeout, this, [this] {
        burst.invalidate();
        Q_EMIT settled();
    });
    restart.setSingleShot(true);
    restart.setInterval(RestartDelayMs);
    connect(&restart, &QTimer::timeout, this, &RouteMonitor::open);
}

RouteMonitor::~RouteMonitor()
{
    stop();
}

void RouteMonitor::start()
{
    stop();
    restarts = 0;
    running = true;
    open();
}

void RouteMonitor::stop()
{
    running = false;
    settle.stop();
    restart.stop();
    burst.invalidate();
    pending = Changes();
    linkUp.clear();
    close();
}

RouteMonitor::Changes RouteMonitor::takeChanges()
{
    return std::exchange(pending, Changes());
}

void RouteMonitor::open()
{
    close();
    qInfo() << "[MacVpnBackend] route monitor on the routing socket";
    healthy.start();
    listener = host.openRouteListener();
    lastOwnSeq.reset();
    if (listener < 0) {
        failed();
        return;
    }
    notifier = std::make_unique<QSocketNotifier>(listener, QSocketNotifier::Read);
    connect(notifier.get(), &QSocketNotifier::activated, this, &RouteMonitor::readMessages);
    // A change made before the socket listened (since the routes were set,
    // or while it was down) would go unseen: one look once it does.
    pending.wayOut = true;
    note();
}

void RouteMonitor::close()
{
    notifier.reset();
    if (listener >= 0)
        ::close(listener);
    listener = -1;
}

// Only a change of the way out, or of a route that someone else deleted or
// changed, is noted; a look-up, an address, a refused change, our own writes
// and a link first seen are not.
void RouteMonitor::readMessages()
{
    char buffer[MessageBytes];
    for (;;) {
        const ssize_t got = ::recv(listener, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
            return;
        if (got <= 0) {
            failed();
            return;
        }
        const auto message = RouteMessage::decode(buffer, got);
        if (!message)
            continue;
        if (message->pid == QCoreApplication::applicationPid()) {
            // Another program's change may have been dropped with ours:
            // the table is read again.
            if (lastOwnSeq && message->seq > *lastOwnSeq + 1) {
                pending.wayOut = true;
                note();
            }
            lastOwnSeq = message->seq;
            continue;
        }
        if (message->type == RouteMessage::InterfaceInfo) {
            const bool up = (message->flags & RouteMessage::LinkUp) &&
                            (message->flags & RouteMessage::LinkRunning);
            const auto seen = linkUp.constFind(message->index);
            if (seen != linkUp.cend() && *seen != up) {
                pending.wayOut = true;
                note();
            }
            linkUp.insert(message->index, up);
            continue;
        }
        const bool change = message->type == RouteMessage::Add ||
                            message->type == RouteMessage::Delete ||
                            message->type == RouteMessage::Change;
        if (!change || message->error != 0 || message->destination.isNull())
            continue;
        if (message->isDefault())
            pending.wayOut = true;
        else if (message->type != RouteMessage::Add)
            pending.touched.append(message->destination.toString());
        else if (!(message->flags & RouteMessage::WasCloned))
            pending.added = true;
        else
            continue;
        note();
    }
}

// Waits for the burst to end, but never longer than MaxDelayMs after it began.
void RouteMonitor::note()
{
    if (!burst.isValid())
        burst.start();
    settle.start(int(qBound(qint64(0), MaxDelayMs - burst.elapsed(), qint64(SettleMs))));
}

void RouteMonitor::failed()
{
    close();
    if (!running)
        return;
    if (healthy.isValid() && healthy.elapsed() >= HealthyMs)
        restarts = 0;
    if (restarts >= MaxRestarts) {
        qWarning() << "[MacVpnBackend] route monitor lost its socket; not opened again";
        running = false;
        return;
    }
    ++restarts;
    qWarning() << "[MacVpnBackend] route monitor lost its socket; opening it again" << restarts
               << "of" << MaxRestarts;
    restart.start();
}
