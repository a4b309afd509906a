#include "service/ServiceSignals.h"

#include <QDebug>

#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// The handler may only do async-signal-safe work: it writes the signal number
// into a socket pair that the event loop watches.
int pipeEnds[2] = {-1, -1};
constexpr int HandledSignals[] = {SIGTERM, SIGINT, SIGHUP, SIGUSR1};

void forwardSignal(int signalNumber)
{
    const unsigned char byte = static_cast<unsigned char>(signalNumber);
    [[maybe_unused]] const auto written = ::write(pipeEnds[0], &byte, 1);
}

} // namespace

ServiceSignals::ServiceSignals(QObject *parent) : QObject(parent)
{
    // Not inherited by the tools and the tunnel program; macOS has no
    // SOCK_CLOEXEC, and nothing forks before this runs.
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, pipeEnds) != 0) {
        qWarning() << "[ServiceSignals] socketpair failed; signals end the process at once";
        return;
    }
    for (const int end : pipeEnds) {
        ::fcntl(end, F_SETFD, FD_CLOEXEC);
        ::fcntl(end, F_SETFL, O_NONBLOCK);
    }
    notifier = std::make_unique<QSocketNotifier>(pipeEnds[1], QSocketNotifier::Read);
    connect(notifier.get(), &QSocketNotifier::activated, this, &ServiceSignals::drain);

    struct sigaction action = {};
    action.sa_handler = forwardSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int signalNumber : HandledSignals)
        ::sigaction(signalNumber, &action, nullptr);
}

ServiceSignals::~ServiceSignals()
{
    for (const int signalNumber : HandledSignals)
        std::signal(signalNumber, SIG_DFL);
    notifier.reset();
    for (int &end : pipeEnds) {
        if (end >= 0)
            ::close(end);
        end = -1;
    }
}

void ServiceSignals::drain()
{
    unsigned char byte = 0;
    while (::read(pipeEnds[1], &byte, 1) == 1) {
        qInfo() << "[ServiceSignals] received signal" << int(byte);
        if (byte == SIGUSR1)
            Q_EMIT logRotated();
        else
            Q_EMIT stopRequested();
    }
}
