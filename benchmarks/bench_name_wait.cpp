// Prints how much processor time the backend spends while it waits the full
// five seconds for an interface name that never comes.
#include "FakeHost.h"

#include "backend/MacVpnBackend.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <cstdio>
#include <sys/resource.h>

namespace {

double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    FakeHost host;
    host.installTunnel();
    host.setTunnelFaults(QStringLiteral("noname"));
    MacVpnBackend backend(host.environment());

    const double cpuBefore = cpuSeconds();
    QElapsedTimer wall;
    wall.start();
    const bool started = backend.startTunnelProcess();
    const double wallSeconds = double(wall.elapsed()) / 1000.0;
    const double cpu = cpuSeconds() - cpuBefore;
    backend.cleanup();

    std::printf("name wait: %s after %.2f s wall, %.3f s CPU (%.2f %% of wall time; limit 5 %%)\n",
                started ? "unexpected success" : "gave up", wallSeconds, cpu,
                100.0 * cpu / wallSeconds);
    return started ? 1 : 0;
}
