// Prints the service's own share of a full connect and disconnect: the wall
// time of the cycle minus the time it spends blocked on child processes (the
// simulated tools and the tunnel program), its processor time, and how many
// flushes to stable storage it makes: each costs 5-10 ms on a Mac
// (F_FULLFSYNC), next to nothing here, so the share a Mac would see is given
// too, at 8 ms a flush.
//
// The waits are read off the service's own log lines, which bracket each of
// them from before the child is spawned until it is reaped: "runCommand" ..
// "command finished", "start process" .. "tunnel interface", "uapiCommand"
// .. "uapiCommand finished", the route monitor's start .. "connected", and
// the tunnel stop just before the clean-up's "flushDnsCache".
#include "ClientConfig.h"
#include "FakeHost.h"

#include "backend/MacVpnBackend.h"
#include "backend/core/AtomicFile.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

struct Line
{
    qint64 ns;
    QString text;
};

QElapsedTimer monotonic;
std::vector<Line> lines;

bool startsWith(const Line &line, const char *prefix)
{
    return line.text.startsWith(QLatin1String(prefix));
}

// Time spent waiting for children, in milliseconds, and how many waits.
std::pair<double, int> childTime()
{
    const std::pair<const char *, const char *> brackets[] = {
        {"[MacVpnBackend] runCommand", "[MacVpnBackend] command "},
        {"[MacVpnBackend] start process", "[MacVpnBackend] tunnel interface"},
        {"[MacVpnBackend] uapiCommand interface=", "[MacVpnBackend] uapiCommand finished"},
        {"[MacVpnBackend] route monitor", "[MacVpnBackend] connected"},
    };
    double ns = 0;
    int waits = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        for (const auto &[open, close] : brackets) {
            if (!startsWith(lines[i], open))
                continue;
            for (size_t j = i + 1; j < lines.size(); ++j) {
                if (startsWith(lines[j], close)) {
                    ns += double(lines[j].ns - lines[i].ns);
                    ++waits;
                    break;
                }
            }
        }
        // The clean-up stops the tunnel program right before it flushes the caches.
        if (startsWith(lines[i], "[MacVpnBackend] flushDnsCache") && i > 0 &&
            lines[i - 1].text.contains(QLatin1String("command "))) {
            bool inCleanup = false;
            for (size_t k = i; k-- > 0 && !inCleanup;) {
                if (startsWith(lines[k], "[MacVpnBackend] cleanup"))
                    inCleanup = true;
                else if (startsWith(lines[k], "[MacVpnBackend] flushDnsCache") ||
                         startsWith(lines[k], "[MacVpnBackend] connected"))
                    break;
            }
            if (inCleanup)
                ns += double(lines[i].ns - lines[i - 1].ns);
        }
    }
    return {ns / 1e6, waits};
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    monotonic.start();
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &message) {
        lines.push_back({monotonic.nsecsElapsed(), message});
    });
    FakeHost host;
    host.installTunnel();
    host.resolve(QStringLiteral("tarvex.com"), {QStringLiteral("198.51.100.10")});

    MacVpnBackend backend(host.environment());
    const ParsedVpnConfig config = clientConfig();
    backend.connectVpn(config); // warm-up
    backend.disconnectVpn();

    // Leak protection is on by default; the second run shows what it costs:
    // the pf calls a connect gains, and the connect's own time.
    const QVariantMap unprotected{{QStringLiteral("leakProtection"), false}};
    for (const QVariantMap &peer : {QVariantMap(), unprotected}) {
        std::vector<double> walls, overheads, cpus, connects;
        int waits = 0;
        int flushes = 0;
        std::pair<long, long> pfctlCalls; // in the connect, in the disconnect
        for (int cycle = 0; cycle < 9; ++cycle) {
            lines.clear();
            const int flushesBefore = AtomicFile::flushCount();
            const double cpuBefore = FakeHost::cpuMs();
            const qint64 before = monotonic.nsecsElapsed();
            backend.connectVpn(config, peer);
            if (backend.status() != PlatformVpnBackend::Connected) {
                std::printf("connect failed: %s\n", qPrintable(backend.lastError()));
                return 1;
            }
            connects.push_back(double(monotonic.nsecsElapsed() - before) / 1e6);
            const size_t connectLines = lines.size();
            backend.disconnectVpn();
            const double wall = double(monotonic.nsecsElapsed() - before) / 1e6;
            const auto [children, count] = childTime();
            waits = count;
            walls.push_back(wall);
            overheads.push_back(wall - children);
            cpus.push_back(FakeHost::cpuMs() - cpuBefore);
            flushes = AtomicFile::flushCount() - flushesBefore;
            const auto pfctl = [](const Line &line) {
                return startsWith(line, "[MacVpnBackend] runCommand") &&
                       line.text.contains(QLatin1String("pfctl"));
            };
            const auto split = lines.begin() + qsizetype(connectLines);
            pfctlCalls = {std::count_if(lines.begin(), split, pfctl),
                          std::count_if(split, lines.end(), pfctl)};
        }

        std::printf("%s\n", peer.isEmpty() ? "with leak protection (the default):"
                                           : "without leak protection:");
        std::printf("  connect: %.1f ms wall; pfctl calls: %ld in the connect, %ld in the "
                    "disconnect\n",
                    median(connects), pfctlCalls.first, pfctlCalls.second);
        std::printf("  connect+disconnect cycle: %.1f ms wall, %d waits for child processes\n",
                    median(walls), waits);
        std::printf("  service's own overhead: %.2f ms (wall minus time blocked on children; "
                    "limit 10 ms)\n",
                    median(overheads));
        std::printf("  flushes to stable storage: %d per cycle (journal and /etc/hosts; limit 6)\n",
                    flushes);
        std::printf("  on a Mac, at 8 ms a flush: about %.1f ms of the service's own\n",
                    median(overheads) + flushes * 8.0);
        std::printf("  service's CPU time: %.2f ms per cycle (process spawning included)\n",
                    median(cpus));
    }
    return 0;
}
