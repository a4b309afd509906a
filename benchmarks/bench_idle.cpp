// Prints what an idle service costs, disconnected and without a block, then
// connected with the kill switch on: the tool calls it makes (pfctl above
// all: one round of checks every 9 s under the block), its own processor
// time, and what that would cost on a Mac at 5 ms a pfctl call, beside the
// routing socket's usual noise, over the given number of minutes each (2 by
// default). As root: pfctl is root's.
#include "ClientConfig.h"
#include "FakeHost.h"

#include "backend/MacVpnBackend.h"

#include <QCoreApplication>
#include <QRegularExpression>
#include <QTimer>

#include <cstdio>

namespace {

// Runs the event loop for so many minutes and prints what it cost.
void measure(QCoreApplication &app, FakeHost &host, const char *what, int minutes)
{
    const QStringList before = host.calls();
    const double cpu = FakeHost::cpuMs();
    QTimer::singleShot(minutes * 60000, &app, &QCoreApplication::quit);
    app.exec();
    const QStringList calls = host.calls().mid(before.size());
    const double pfctl = double(calls.filter(QRegularExpression("^pfctl ")).size()) / minutes;
    constexpr double MacPfctlMs = 5;
    std::printf("%s, %d min: %.1f pfctl calls a minute, %lld tool calls in all, %.0f ms of the "
                "service's own CPU; on a Mac about %.0f ms of pfctl a minute, %.3f %% of a core\n",
                what, minutes, pfctl, qlonglong(calls.size()), FakeHost::cpuMs() - cpu, pfctl * MacPfctlMs,
                pfctl * MacPfctlMs / 600.0);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const int minutes = argc > 1 ? QByteArray(argv[1]).toInt() : 2;
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    FakeHost host;
    host.installTunnel();
    MacVpnBackend backend(host.environment());
    measure(app, host, "idle, disconnected", minutes);
    const ParsedVpnConfig config = clientConfig();
    backend.connectVpn(config, {{"killSwitch", QVariantMap{{"enabled", true}}}});
    if (backend.status() != PlatformVpnBackend::Connected) {
        std::printf("connect failed: %s\n", qPrintable(backend.lastError()));
        return 1;
    }
    QTimer::singleShot(2000, &app, &QCoreApplication::quit); // the monitor's first look
    app.exec();
    measure(app, host, "idle, connected with the kill switch", minutes);
    backend.disconnectVpn();
    return 0;
}
