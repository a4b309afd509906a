// Prints the throughput and latency of "status" round trips over the service
// socket: one client after another, then 50 clients at once.
#include "FakeHost.h"

#include "protocol/VpnServiceProtocol.h"
#include "service/MacVpnServiceServer.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QLocalSocket>

#include <algorithm>
#include <cstdio>
#include <thread>
#include <vector>

namespace {

// One round trip on a fresh connection, as the client application does it;
// returns its duration in microseconds, or -1 when it failed.
qint64 roundTrip(const QString &path)
{
    QElapsedTimer clock;
    clock.start();
    QLocalSocket socket;
    socket.connectToServer(path);
    if (!socket.waitForConnected(5000))
        return -1;
    socket.write(
        VpnServiceProtocol::encodeMessage({{QStringLiteral("command"), QStringLiteral("status")}}));
    QJsonObject reply;
    if (!VpnServiceProtocol::readMessage(&socket, &reply, nullptr, 5000))
        return -1;
    return clock.nsecsElapsed() / 1000;
}

void print(const char *label, std::vector<qint64> latencies, qint64 wallMs, int failures)
{
    std::sort(latencies.begin(), latencies.end());
    const auto at = [&](double q) {
        return latencies.empty() ? 0 : latencies[size_t(q * double(latencies.size() - 1))];
    };
    std::printf("%-24s %6zu requests  %8.0f req/s  p50 %6.3f ms  p99 %6.3f ms  failures %d\n",
                label, latencies.size(),
                double(latencies.size()) * 1000.0 / double(std::max<qint64>(wallMs, 1)),
                double(at(0.50)) / 1000.0, double(at(0.99)) / 1000.0, failures);
}

// The measuring runs on a thread of its own while the server runs on the
// main thread's event loop, as in the daemon.
void measure(const QString &path)
{
    constexpr int Sequential = 5000;
    std::vector<qint64> latencies;
    int failures = 0;
    QElapsedTimer wall;
    wall.start();
    for (int i = 0; i < Sequential; ++i) {
        const qint64 us = roundTrip(path);
        us < 0 ? ++failures : (latencies.push_back(us), 0);
    }
    print("sequential", latencies, wall.elapsed(), failures);

    constexpr int Clients = 50;
    constexpr int PerClient = 200;
    std::vector<std::vector<qint64>> perClient(Clients);
    std::vector<int> clientFailures(Clients, 0);
    wall.restart();
    std::vector<std::thread> threads;
    for (int c = 0; c < Clients; ++c) {
        threads.emplace_back([&, c] {
            for (int i = 0; i < PerClient; ++i) {
                const qint64 us = roundTrip(path);
                us < 0 ? ++clientFailures[size_t(c)] : (perClient[size_t(c)].push_back(us), 0);
            }
        });
    }
    for (std::thread &t : threads)
        t.join();
    std::vector<qint64> all;
    for (const auto &list : perClient)
        all.insert(all.end(), list.begin(), list.end());
    int totalFailures = 0;
    for (int f : clientFailures)
        totalFailures += f;
    print("50 concurrent clients", all, wall.elapsed(), totalFailures);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    FakeHost host;
    const QString path = host.path(QStringLiteral("service.sock"));
    MacVpnServiceServer server(path, host.environment());
    if (!server.start())
        return 1;
    std::thread measuring([&path] {
        measure(path);
        QMetaObject::invokeMethod(QCoreApplication::instance(), &QCoreApplication::quit);
    });
    const int code = app.exec();
    measuring.join();
    return code;
}
