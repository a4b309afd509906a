// Prints what an idle service costs while connected with the kill switch on:
// the tool calls it makes (pfctl above all: one check a minute) and its
// processor time, beside the routing socket's usual noise, over the given
// number of minutes (3 by default). As root: pfctl is root's.
#include "ClientConfig.h"
#include "FakeHost.h"

#include "backend/MacVpnBackend.h"

#include <QCoreApplication>
#include <QRegularExpression>
#include <QTimer>

#include <cstdio>
#include <sys/resource.h>

namespace {

double cpuMs()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000.0 +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000.0;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const int minutes = argc > 1 ? QByteArray(argv[1]).toInt() : 3;
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    FakeHost host;
    host.installTunnel();
    MacVpnBackend backend(host.environment());
    const ParsedVpnConfig config = clientConfig();
    backend.connectVpn(config, {{"killSwitch", QVariantMap{{"enabled", true}}}});
    if (backend.status() != PlatformVpnBackend::Connected) {
        std::printf("connect failed: %s\n", qPrintable(backend.lastError()));
        return 1;
    }
    QTimer::singleShot(2000, &app, &QCoreApplication::quit); // the monitor's first look
    app.exec();
    const QStringList before = host.calls();
    const double cpu = cpuMs();
    QTimer::singleShot(minutes * 60000, &app, &QCoreApplication::quit);
    app.exec();
    const QStringList calls = host.calls().mid(before.size());
    std::printf("idle and connected with the kill switch for %d min: %lld pfctl calls "
                "(%.1f a minute), %lld tool calls in all, %.0f ms of CPU\n",
                minutes, qlonglong(calls.filter(QRegularExpression("^pfctl ")).size()),
                double(calls.filter(QRegularExpression("^pfctl ")).size()) / minutes,
                qlonglong(calls.size()), cpuMs() - cpu);
    backend.disconnectVpn();
    return 0;
}
