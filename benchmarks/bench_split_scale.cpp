// Prints what split tunnelling costs at the size people use it: a country's
// ranges run to 8,000-15,000 prefixes. For each list, prefixes that cannot
// be merged: connect and disconnect wall time, the service's own processor
// time, tool processes started, routing messages written, journal bytes and
// flushes, and the peak memory so far; then what a Mac would take.
//
// The Mac estimate: the service's own processor time here, plus 3 ms a tool
// process, 8 ms a flush (F_FULLFSYNC), and 30 µs a routing message. The last
// is assumed: three times what this machine's kernel takes for a route
// change by netlink (7-10 µs a route with "ip -batch", 11,000 routes), for
// xnu's route_output does more under its lock. The stand-in kernel here is a
// Python process, so the wall times below are not a Mac's.
#include "ClientConfig.h"
#include "FakeHost.h"

#include "backend/MacVpnBackend.h"
#include "backend/core/AtomicFile.h"
#include "backend/routes/RoutingSocket.h"

#include <QCoreApplication>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>

#include <cstdio>

namespace {

constexpr double ToolMs = 3.0;
constexpr double FlushMs = 8.0;
constexpr double MessageMs = 0.030;

qint64 directoryBytes(const QString &path)
{
    qint64 bytes = 0;
    for (QDirIterator it(path, QDir::Files, QDirIterator::Subdirectories); it.hasNext();) {
        it.next();
        bytes += it.fileInfo().size();
    }
    return bytes;
}

// Every other /24 from 20.0.0.0: no two can be merged.
QVariantList destinations(int count)
{
    QVariantList entries;
    for (int i = 0; i < count; ++i) {
        const quint32 network = (20u << 24) + quint32(i) * 512;
        entries.append(QVariantMap{{QStringLiteral("value"), QStringLiteral("%1.%2.%3.0/24")
                                                                 .arg(network >> 24)
                                                                 .arg((network >> 16) & 0xff)
                                                                 .arg((network >> 8) & 0xff)}});
    }
    return entries;
}

struct Phase
{
    double wallMs = 0;
    double cpuMs = 0;
    qsizetype tools = 0;
    qint64 messages = 0;
    int flushes = 0;
    double macMs() const
    {
        return cpuMs + tools * ToolMs + flushes * FlushMs + messages * MessageMs;
    }
};

template <typename Step> Phase measure(const FakeHost &host, Step step)
{
    const qsizetype callsBefore = host.calls().size();
    const qint64 messagesBefore = RoutingSocket::written();
    const int flushesBefore = AtomicFile::flushCount();
    const double cpuBefore = FakeHost::cpuMs();
    QElapsedTimer clock;
    clock.start();
    step();
    Phase phase;
    phase.wallMs = double(clock.nsecsElapsed()) / 1e6;
    phase.cpuMs = FakeHost::cpuMs() - cpuBefore;
    for (const QString &call : host.calls().mid(callsBefore)) {
        if (!call.startsWith(QLatin1String("rtsock ")) &&
            !call.startsWith(QLatin1String("sysctl ")))
            ++phase.tools;
    }
    phase.messages = RoutingSocket::written() - messagesBefore;
    phase.flushes = AtomicFile::flushCount() - flushesBefore;
    return phase;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    FakeHost host;
    host.installTunnel();
    host.resolve(QStringLiteral("tarvex.com"), {QStringLiteral("198.51.100.10")});
    MacVpnBackend backend(host.environment());
    const ParsedVpnConfig config = clientConfig();

    std::printf("%-22s %9s %9s %8s %6s %9s %10s %8s %9s %9s %9s\n", "case", "connect", "disconn.",
                "own CPU", "tools", "messages", "journal", "flushes", "peak mem", "Mac conn.",
                "Mac disc.");
    const struct
    {
        const char *name;
        int mode;
        int count;
    } cases[] = {{"all but 0", 2, 0},
                 {"all but 1,000", 2, 1000},
                 {"all but 11,000", 2, 11000},
                 {"all but 50,000", 2, 50000},
                 {"only 11,000", 1, 11000}};
    for (const auto &each : cases) {
        const QVariantMap peer{
            {QStringLiteral("splitTunnel"),
             QVariantMap{{QStringLiteral("enabled"), each.count > 0},
                         {QStringLiteral("mode"), each.mode},
                         {QStringLiteral("entries"), destinations(each.count)}}}};
        qint64 journal = 0;
        const Phase up = measure(host, [&] {
            backend.connectVpn(config, peer);
            journal = directoryBytes(host.path(QStringLiteral("journal")));
        });
        if (backend.status() != PlatformVpnBackend::Connected) {
            std::printf("%s: connect failed: %s\n", each.name, qPrintable(backend.lastError()));
            return 1;
        }
        const Phase down = measure(host, [&] { backend.disconnectVpn(); });
        std::printf("%-22s %7.0f ms %6.0f ms %5.0f ms %6lld %9lld %7lld KB %8d %6ld MB %6.0f ms "
                    "%6.0f ms\n",
                    each.name, up.wallMs, down.wallMs, up.cpuMs + down.cpuMs,
                    qlonglong(up.tools + down.tools), qlonglong(up.messages + down.messages),
                    qlonglong(journal / 1000), up.flushes + down.flushes,
                    FakeHost::peakKiB() / 1024, up.macMs(), down.macMs());
    }
    std::printf("Mac estimate: own CPU + %.0f ms a tool process + %.0f ms a flush + %.0f µs a "
                "routing message (assumed; see the source)\n",
                ToolMs, FlushMs, MessageMs * 1000);
    return 0;
}
