// Floods the running service the way a hostile local user could, and times
// honest clients throughout: connections that say nothing, clients that
// write a byte at a time and never finish a line, and junk (malformed lines,
// oversized lines, clients that vanish mid-request), and clients that send
// most of the largest request allowed and never finish it. Flood clients that
// the service closes come straight back.
//
//   load_clients [--seconds S] [--honest N] [--idle N] [--slow N] [--junk N] [--big N]
//                [--pid DAEMON_PID] [--socket PATH] [--max-latency-ms MS]
//
// Exit status 0 when every honest request was answered (within the given
// latency, if any) and the service still answers afterwards.
#include "protocol/VpnServiceProtocol.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QHash>
#include <QJsonDocument>
#include <QLocalSocket>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

enum class Kind { Idle, Slow, Junk, Big };

// Just under the service's bound on one request.
constexpr qsizetype BigRequestBytes = 15 * 1024 * 1024;

struct Figures
{
    int closedByService = 0; // idle and slow connections the service let go
    int junkRefused = 0;
    int junkClosed = 0;
    int vanished = 0;
};

// One flood connection, reopened whenever the service closes it.
class FloodClient : public QObject
{
public:
    FloodClient(Kind kind, const QString &path, Figures &figures, int seed)
        : kind(kind), path(path), figures(figures), turn(seed)
    {
        connect(&drip, &QTimer::timeout, this, [this] {
            if (socket && socket->state() == QLocalSocket::ConnectedState)
                socket->write("x");
        });
        open();
    }

private:
    void open()
    {
        socket = std::make_unique<QLocalSocket>();
        reply.clear();
        connect(socket.get(), &QLocalSocket::readyRead, this,
                [this] { reply += socket->readAll(); });
        // Queued: the close may be noticed in the middle of a write below.
        connect(
            socket.get(), &QLocalSocket::disconnected, this,
            [this, current = socket.get()] {
                if (socket.get() == current)
                    closed();
            },
            Qt::QueuedConnection);
        socket->connectToServer(path);
        if (socket->state() != QLocalSocket::ConnectedState) {
            QTimer::singleShot(50, this, [this] { open(); });
            return;
        }
        if (kind == Kind::Slow) {
            socket->write("{");
            drip.start(200);
        } else if (kind == Kind::Big) {
            socket->write(QByteArray(BigRequestBytes, ' '));
        } else if (kind == Kind::Junk) {
            switch (turn++ % 3) {
            case 0:
                socket->write("{\"command\": status, oops\n");
                break;
            case 1:
                socket->write(QByteArray(1024 * 1024 + 4096, 'x'));
                break;
            default:
                socket->write("{\"command\":\"sta");
                socket->flush();
                ++figures.vanished;
                socket->abort();
                return;
            }
        }
        socket->flush();
    }

    void closed()
    {
        drip.stop();
        if (socket->isOpen())
            reply += socket->readAll();
        if (kind != Kind::Junk)
            ++figures.closedByService;
        else if (reply.contains("\"ok\":false"))
            ++figures.junkRefused;
        else
            ++figures.junkClosed;
        socket.release()->deleteLater();
        QTimer::singleShot(10, this, [this] { open(); });
    }

    Kind kind;
    QString path;
    Figures &figures;
    int turn;
    std::unique_ptr<QLocalSocket> socket;
    QByteArray reply;
    QTimer drip;
};

// Honest clients, each on a thread of its own as a separate program would
// be: connect, write the request at once, wait for the answer, again.
struct Honest
{
    std::mutex mutex;
    std::vector<double> latenciesMs;
    int failures = 0;
};

void honestClient(const QString &path, const std::atomic<bool> &stop, Honest &honest)
{
    const QByteArray request =
        VpnServiceProtocol::encodeMessage({{QStringLiteral("command"), QStringLiteral("status")}});
    while (!stop) {
        QElapsedTimer clock;
        clock.start();
        QLocalSocket socket;
        socket.connectToServer(path);
        QJsonObject reply;
        const bool connected = socket.waitForConnected(5000);
        const bool ok = connected && socket.write(request) > 0 && socket.flush() &&
                        VpnServiceProtocol::readMessage(&socket, &reply, nullptr, 5000) &&
                        reply.value(QStringLiteral("ok")).toBool();
        if (!ok)
            std::fprintf(stderr, "honest request failed: %s\n",
                         connected ? "no answer" : qPrintable(socket.errorString()));
        const std::lock_guard<std::mutex> lock(honest.mutex);
        if (ok)
            honest.latenciesMs.push_back(double(clock.nsecsElapsed()) / 1e6);
        else
            ++honest.failures;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

long statusField(qint64 pid, const char *field)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith(field))
            return line.mid(qsizetype(qstrlen(field))).trimmed().split(' ').value(0).toLong();
    }
    return -1;
}

long openDescriptors(qint64 pid)
{
    return long(QDir(QStringLiteral("/proc/%1/fd").arg(pid)).count()) - 2;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    // Qt's complaints about sockets the service closed are the point here.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    int seconds = 10, honestClients = 4, idle = 300, slow = 200, junk = 50, big = 0;
    double maxLatencyMs = 0;
    qint64 pid = 0;
    QString path = VpnServiceProtocol::socketPath();
    const QHash<QString, std::function<void(const QString &)>> options = {
        {QStringLiteral("--seconds"), [&](const QString &v) { seconds = v.toInt(); }},
        {QStringLiteral("--honest"), [&](const QString &v) { honestClients = v.toInt(); }},
        {QStringLiteral("--idle"), [&](const QString &v) { idle = v.toInt(); }},
        {QStringLiteral("--slow"), [&](const QString &v) { slow = v.toInt(); }},
        {QStringLiteral("--junk"), [&](const QString &v) { junk = v.toInt(); }},
        {QStringLiteral("--big"), [&](const QString &v) { big = v.toInt(); }},
        {QStringLiteral("--pid"), [&](const QString &v) { pid = v.toLongLong(); }},
        {QStringLiteral("--socket"), [&](const QString &v) { path = v; }},
        {QStringLiteral("--max-latency-ms"),
         [&](const QString &v) { maxLatencyMs = v.toDouble(); }},
    };
    const QStringList args = app.arguments();
    for (int i = 1; i + 1 < args.size(); i += 2) {
        if (const auto option = options.find(args[i]); option != options.end())
            (*option)(args[i + 1]);
    }

    Figures figures;
    std::vector<std::unique_ptr<FloodClient>> flood;
    for (int i = 0; i < idle + slow + junk + big; ++i)
        flood.push_back(std::make_unique<FloodClient>(i < idle                 ? Kind::Idle
                                                      : i < idle + slow        ? Kind::Slow
                                                      : i < idle + slow + junk ? Kind::Junk
                                                                               : Kind::Big,
                                                      path, figures, i));

    Honest honest;
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < honestClients; ++i)
        threads.emplace_back(honestClient, path, std::cref(stop), std::ref(honest));

    long peakDescriptors = 0;
    QTimer sample;
    QObject::connect(&sample, &QTimer::timeout, [&] {
        if (pid > 0)
            peakDescriptors = std::max(peakDescriptors, openDescriptors(pid));
    });
    sample.start(100);
    QTimer::singleShot(seconds * 1000, &app, &QCoreApplication::quit);
    app.exec();
    stop = true;
    for (std::thread &thread : threads)
        thread.join();
    flood.clear();

    QLocalSocket probe;
    probe.connectToServer(path);
    QJsonObject reply;
    const bool alive = probe.waitForConnected(5000) &&
                       probe.write(VpnServiceProtocol::encodeMessage(
                           {{QStringLiteral("command"), QStringLiteral("status")}})) > 0 &&
                       VpnServiceProtocol::readMessage(&probe, &reply, nullptr, 5000);

    std::vector<double> &latencies = honest.latenciesMs;
    std::sort(latencies.begin(), latencies.end());
    const auto at = [&](double q) {
        return latencies.empty() ? 0.0 : latencies[size_t(q * double(latencies.size() - 1))];
    };
    const double worst = latencies.empty() ? 0.0 : latencies.back();
    std::printf("flood for %d s: %d idle, %d slow writers, %d junk clients, %d unfinished "
                "requests of %lld MiB, reconnecting\n",
                seconds, idle, slow, junk, big, qlonglong(BigRequestBytes >> 20));
    std::printf("honest requests answered: %zu, failed: %d; latency p50 %.2f ms, p99 %.2f ms, "
                "max %.2f ms\n",
                latencies.size(), honest.failures, at(0.50), at(0.99), worst);
    std::printf("idle and slow connections closed by the service: %d; junk refused: %d, closed "
                "unanswered: %d, vanished: %d\n",
                figures.closedByService, figures.junkRefused, figures.junkClosed, figures.vanished);
    if (pid > 0)
        std::printf("service: at most %ld descriptors open, peak memory (VmHWM) %ld KiB\n",
                    peakDescriptors, statusField(pid, "VmHWM:"));
    std::printf("service answers afterwards: %s\n", alive ? "yes" : "NO");
    const bool fastEnough = maxLatencyMs <= 0 || worst <= maxLatencyMs;
    return alive && honest.failures == 0 && !latencies.empty() && fastEnough ? 0 : 1;
}
