// Holds many concurrent client connections against the running service and
// prints what happened: a mix of well-formed "status" requests, malformed
// lines, oversized lines without a line feed, clients that connect and say
// nothing, and clients that vanish halfway through a request.
//
//   load_clients [--clients N] [--requests N] [--pid DAEMON_PID] [--socket PATH]
//
// Exit status 0 when every well-formed request was answered and the service
// still answers afterwards.
#include "protocol/VpnServiceProtocol.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QLocalSocket>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

namespace {

enum class Kind { Status, Malformed, Oversized, Idle, Vanishing };

struct Figures
{
    int answered = 0; // well-formed requests answered with ok true
    int refused = 0;  // malformed and oversized lines answered with ok false
    int vanished = 0;
    int errors = 0;    // anything unexpected
    int stuck[5] = {}; // per kind: no answer within the deadline
    std::vector<double> latenciesMs;
};

class Client : public QObject
{
public:
    Client(Kind kind, const QString &path, int rounds, Figures &figures, int &running)
        : kind(kind), path(path), rounds(rounds), figures(figures), running(running)
    {
        ++running;
        next();
    }

private:
    void next()
    {
        if (rounds-- <= 0) {
            --running;
            return;
        }
        socket = std::make_unique<QLocalSocket>();
        reply.clear();
        clock.start();
        connect(socket.get(), &QLocalSocket::connected, this, [this] { send(); });
        connect(socket.get(), &QLocalSocket::readyRead, this, [this] { receive(); });
        connect(socket.get(), &QLocalSocket::errorOccurred, this,
                [this](QLocalSocket::LocalSocketError error) {
                    if (error == QLocalSocket::PeerClosedError && !done)
                        receive(); // the answer may have come with the close
                    if (error != QLocalSocket::PeerClosedError && !done) {
                        ++figures.errors;
                        finish();
                    }
                });
        done = false;
        socket->connectToServer(path);
        if (kind != Kind::Idle) {
            const int round = rounds;
            QTimer::singleShot(10000, this, [this, round] {
                if (!done && rounds == round) {
                    ++figures.stuck[int(kind)];
                    ++figures.errors;
                    finish();
                }
            });
        }
    }

    void send()
    {
        switch (kind) {
        case Kind::Status:
            socket->write(VpnServiceProtocol::encodeMessage(
                {{QStringLiteral("command"), QStringLiteral("status")}}));
            break;
        case Kind::Malformed:
            socket->write("{\"command\": status, oops\n");
            break;
        case Kind::Oversized:
            // Just past the service's limit: all of it is sent before the
            // answer comes, so the answer cannot be lost to a broken pipe.
            socket->write(QByteArray(1024 * 1024 + 4096, 'x'));
            break;
        case Kind::Idle:
            break; // holds its connection to the end of the run
        case Kind::Vanishing:
            socket->write("{\"command\":\"sta");
            socket->flush();
            QTimer::singleShot(5, this, [this] {
                ++figures.vanished;
                socket->abort();
                finish();
            });
            break;
        }
    }

    void receive()
    {
        reply += socket->readAll();
        if (!reply.contains('\n') || done)
            return;
        const QJsonObject message =
            QJsonDocument::fromJson(reply.left(reply.indexOf('\n'))).object();
        const bool ok = message.value(QStringLiteral("ok")).toBool();
        if (kind == Kind::Status && ok) {
            ++figures.answered;
            figures.latenciesMs.push_back(double(clock.nsecsElapsed()) / 1e6);
        } else if (kind != Kind::Status && !ok && message.contains(QStringLiteral("status"))) {
            ++figures.refused;
        } else {
            ++figures.errors;
        }
        finish();
    }

    void finish()
    {
        done = true;
        socket->disconnect(this);
        socket->abort();
        socket.release()->deleteLater();
        QTimer::singleShot(0, this, [this] { next(); });
    }

    Kind kind;
    QString path;
    int rounds;
    Figures &figures;
    int &running;
    std::unique_ptr<QLocalSocket> socket;
    QByteArray reply;
    QElapsedTimer clock;
    bool done = false;
};

long peakMemoryKb(qint64 pid)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').value(0).toLong();
    }
    return -1;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    int clients = 500;
    int requests = 20000;
    qint64 pid = 0;
    QString path = VpnServiceProtocol::socketPath();
    const QStringList args = app.arguments();
    for (int i = 1; i + 1 < args.size(); i += 2) {
        if (args[i] == QLatin1String("--clients"))
            clients = args[i + 1].toInt();
        else if (args[i] == QLatin1String("--requests"))
            requests = args[i + 1].toInt();
        else if (args[i] == QLatin1String("--pid"))
            pid = args[i + 1].toLongLong();
        else if (args[i] == QLatin1String("--socket"))
            path = args[i + 1];
    }

    // Of every hundred clients: 60 well-formed, 10 malformed, 5 oversized,
    // 15 idle, 10 vanishing.
    const auto kindOf = [clients](int i) {
        const int share = i * 100 / clients;
        return share < 60   ? Kind::Status
               : share < 70 ? Kind::Malformed
               : share < 75 ? Kind::Oversized
               : share < 90 ? Kind::Idle
                            : Kind::Vanishing;
    };
    int statusClients = 0;
    int idleClients = 0;
    for (int i = 0; i < clients; ++i) {
        statusClients += kindOf(i) == Kind::Status ? 1 : 0;
        idleClients += kindOf(i) == Kind::Idle ? 1 : 0;
    }
    const int perStatusClient = std::max(1, requests / std::max(1, statusClients));

    Figures figures;
    int running = 0;
    QElapsedTimer wall;
    wall.start();
    std::vector<std::unique_ptr<Client>> pool;
    for (int i = 0; i < clients; ++i) {
        const Kind kind = kindOf(i);
        const int rounds = kind == Kind::Status      ? perStatusClient
                           : kind == Kind::Idle      ? 1
                           : kind == Kind::Oversized ? 4
                                                     : 40;
        pool.push_back(std::make_unique<Client>(kind, path, rounds, figures, running));
    }

    // Idle clients never finish; the run ends when only they are left.
    QTimer tick;
    tick.start(50);
    while (running > idleClients && wall.elapsed() < 300000)
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
    const double seconds = double(wall.elapsed()) / 1000.0;

    // Still serving, with the idle clients holding their connections?
    QLocalSocket probe;
    probe.connectToServer(path);
    QJsonObject reply;
    const bool alive = probe.waitForConnected(5000) &&
                       probe.write(VpnServiceProtocol::encodeMessage(
                           {{QStringLiteral("command"), QStringLiteral("status")}})) > 0 &&
                       VpnServiceProtocol::readMessage(&probe, &reply, nullptr, 5000);

    std::sort(figures.latenciesMs.begin(), figures.latenciesMs.end());
    const auto at = [&](double q) {
        return figures.latenciesMs.empty()
                   ? 0.0
                   : figures.latenciesMs[size_t(q * double(figures.latenciesMs.size() - 1))];
    };
    const int expected = statusClients * perStatusClient;
    std::printf("clients held: %d concurrent (%d idle throughout)\n", clients, idleClients);
    std::printf(
        "well-formed requests answered: %d of %d in %.1f s; latency p50 %.2f ms, p99 %.2f ms\n",
        figures.answered, expected, seconds, at(0.50), at(0.99));
    std::printf("malformed and oversized lines refused: %d; clients vanished mid-request: %d; "
                "unexpected: %d\n",
                figures.refused, figures.vanished, figures.errors);
    if (pid > 0)
        std::printf("service peak memory (VmHWM): %ld KiB\n", peakMemoryKb(pid));
    std::printf("service answers afterwards: %s\n", alive ? "yes" : "NO");
    static const char *const kinds[] = {"well-formed", "malformed", "oversized", "idle",
                                        "vanishing"};
    for (int k = 0; k < 5; ++k) {
        if (figures.stuck[k] != 0)
            std::printf("no answer within 10 s: %d %s clients\n", figures.stuck[k], kinds[k]);
    }
    return alive && figures.answered == expected && figures.errors == 0 ? 0 : 1;
}
