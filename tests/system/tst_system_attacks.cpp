// What a local attacker can send or plant, against the unmodified daemon:
// every value is refused before anything runs, and the tunnel program's
// files cannot be taken over.
#include "Requests.h"
#include "SystemHost.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QLocalServer>
#include <QRegularExpression>
#include <QTest>
#include <QUdpSocket>

#include <cstdio>
#include <future>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString RuntimeDir = QStringLiteral("/var/run/tarvex-amneziawg");
// An honest client's worst wait beside the flood: about 300 ms on an idle
// machine; the bound is far above that, and below the 5 s a client would
// wait if it were made to queue behind the flood's deadlines.
#ifdef __SANITIZE_ADDRESS__
constexpr int MaxLatencyMs = 5000; // several times slower under the sanitizers
#else
constexpr int MaxLatencyMs = 2500;
#endif

// Applies a change to a connect request that is otherwise well formed:
// "last" changes the client configuration, "record" the request's record of
// it, "config" replaces that record, "peer" adds to the peer map and "split"
// gives the split tunnel's entries.
QJsonObject hostileRequest(const QJsonObject &change)
{
    const ParsedVpnConfig config = clientConfig(change.value("last").toObject());
    QJsonObject request = connectRequest(config, 2, {"203.0.113.0/24"});
    QJsonObject record = request.value("config").toObject();
    QJsonObject peer = request.value("peer").toObject();
    for (const auto &[key, object] : {std::pair{"record", &record}, {"peer", &peer}}) {
        const QJsonObject added = change.value(key).toObject();
        for (auto it = added.begin(); it != added.end(); ++it)
            object->insert(it.key(), it.value());
    }
    if (change.contains("split"))
        peer.insert("splitTunnel",
                    QJsonObject{{"enabled", true}, {"mode", 1}, {"entries", change["split"]}});
    request.insert("config", change.contains("config") ? change.value("config") : record);
    request.insert("peer", peer);
    return request;
}

bool append(const QString &path, const QByteArray &text)
{
    QFile file(path);
    return file.open(QIODevice::Append) && file.write(text) == text.size();
}

// Runs the load generator against the daemon and passes on what it printed.
int load(const QStringList &arguments)
{
    QProcess load;
    load.setProcessChannelMode(QProcess::MergedChannels);
    load.start(SystemHost::binary("load_clients"), arguments);
    load.waitForFinished(60000);
    std::fputs(load.readAll().constData(), stdout);
    return load.exitCode();
}

} // namespace

class TestSystemAttacks : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<SystemHost> shared;

private Q_SLOTS:
    void initTestCase()
    {
        if (SystemHost::unavailableReason().isEmpty()) {
            shared = std::make_unique<SystemHost>();
            QVERIFY(shared->startWithTunnel());
        }
    }

    // The rows: tests/system/hostile-values.json, and two too long to write there.
    void refusesHostileValues_data()
    {
        QTest::addColumn<QJsonObject>("change");
        QTest::addColumn<QString>("error");
        QFile rows("tests/system/hostile-values.json");
        QVERIFY(rows.open(QIODevice::ReadOnly));
        for (const QJsonValue &row : QJsonDocument::fromJson(rows.readAll()).array())
            QTest::newRow(qPrintable(row["case"].toString()))
                << row.toObject() << row["error"].toString();
        QJsonArray many, ranges;
        for (int i = 0; i < 50001; ++i) {
            const QString address = QString("10.%1.%2.0").arg(i / 256).arg(i % 256);
            many.append(QJsonObject{{"value", address}});
            ranges.append(address + "/24");
        }
        QTest::newRow("50,001 split destinations")
            << QJsonObject{{"split", many}}
            << "Слишком много записей в splitTunnel: не больше 50000";
        QTest::newRow("50,001 allowed ranges")
            << QJsonObject{{"last", QJsonObject{{"allowed_ips", ranges}}}}
            << "Слишком много записей в allowed_ips: не больше 50000";
    }

    void refusesHostileValues()
    {
        REQUIRE_SANDBOX();
        QFETCH(QJsonObject, change);
        QFETCH(QString, error);
        const QByteArray before = shared->stateBytes();
        const qsizetype calls = shared->calls().size();
        QCOMPARE(shared->request(hostileRequest(change)), reply(false, "disconnected", error));
        QCOMPARE(shared->calls().size(), calls); // no tool ran
        QVERIFY(!QFileInfo::exists(RuntimeDir));
        QCOMPARE(shared->stateBytes(), before);
    }

    // Planted before the service ever made it: by another user, or as a
    // link to somewhere else.
    void refusesRuntimeDirectoryItDidNotMake_data()
    {
        QTest::addColumn<bool>("link");
        QTest::addColumn<uint>("owner");
        QTest::newRow("another user's directory") << false << 65534u;
        QTest::newRow("symbolic link") << true << 65534u;
        QTest::newRow("symbolic link to a directory of root's") << true << 0u;
    }

    void refusesRuntimeDirectoryItDidNotMake()
    {
        REQUIRE_SANDBOX();
        QFETCH(bool, link);
        QFETCH(uint, owner);
        SystemHost host;
        const QString planted = link ? QStringLiteral("/tmp/planted") : RuntimeDir;
        QVERIFY(QDir().mkpath(planted));
        QVERIFY(::chown(QFile::encodeName(planted).constData(), owner, owner) == 0);
        if (link)
            QVERIFY(QFile::link(planted, RuntimeDir));
        QVERIFY(append(planted + "/amn0.name", "utun9\n"));
        QLocalServer trap;
        QVERIFY(trap.listen(planted + "/utun9.sock"));
        QVERIFY(host.startWithTunnel());
        const QByteArray before = host.stateBytes();

        QCOMPARE(host.request(connectRequest()),
                 reply(false, "error", "Не удалось создать runtime-директорию для VPN"));
        QVERIFY(!trap.waitForNewConnection(100)); // not a byte of the keys reached it
        QCOMPARE(host.stateBytes(), before);
    }

    // A resolver that takes every question and never answers: the names cost
    // the connect one deadline, and other clients are served meanwhile.
    void deadResolverCostsOneDeadline()
    {
        REQUIRE_SANDBOX();
        QUdpSocket silent;
        QVERIFY(silent.bind(QHostAddress("127.0.0.1"), 53));
        QFile resolv("/etc/resolv.conf");
        QVERIFY(resolv.open(QIODevice::WriteOnly | QIODevice::Truncate));
        resolv.write("nameserver 127.0.0.1\noptions timeout:30 attempts:1\n");
        resolv.close();
        SystemHost host;
        QVERIFY(host.startWithTunnel());
        // Eight names: one deadline each would cost eight, far past the
        // bound below, which leaves a loaded machine room for the rest.
        QStringList entries = {"10.1.2.3"};
        for (int name = 0; name < 8; ++name)
            entries.append(QString("n%1.unanswered.example").arg(name));
        const QJsonObject request = connectRequest(clientConfig(), 1, entries);
        constexpr qint64 DeadlineMs = 5000;
        QElapsedTimer clock;
        clock.start();
        auto connecting =
            std::async(std::launch::async, [&host, request] { return host.request(request, 120000); });
        QTest::qWait(500);
        // Answered while the connect waits, or it would say "connected".
        for (; clock.elapsed() < 3000; QTest::qWait(500))
            QCOMPARE(host.request(StatusRequest)["status"], "connecting");
        QCOMPARE(connecting.get()["status"], "connected");
        std::printf("eight unanswered names: connected after %lld ms\n", qlonglong(clock.elapsed()));
        QVERIFY2(clock.elapsed() < 7 * DeadlineMs, qPrintable(QString::number(clock.elapsed())));
        QVERIFY(host.calls().contains(
            QStringList{"rtsock", "add", "-host", "10.1.2.3", "-interface", "utun2"}));
    }

    // Any local user reaches the socket. Only root, the user at the console
    // and administrators may command the service, and the connection's
    // settings, private key included, go back to nobody else.
    void whoMayCommand_data()
    {
        QTest::addColumn<uint>("user");
        QTest::newRow("root") << 0u;
        QTest::newRow("the user at the console") << 501u;
        QTest::newRow("a member of admin") << 502u;
    }

    void whoMayCommand()
    {
        REQUIRE_SANDBOX();
        QFETCH(uint, user);
        QVERIFY(append("/tmp/console", ""));
        QCOMPARE(::chown("/tmp/console", 501, 20), 0);
        QCOMPARE(::mount("/tmp/console", "/dev/console", nullptr, MS_BIND, nullptr), 0);
        QVERIFY(append("/etc/group", "admin:x:80:tester\n"));
        QVERIFY(append("/etc/passwd", "tester:x:502:502::/nonexistent:/usr/sbin/nologin\n"));
        SystemHost host;
        QVERIFY(host.startWithTunnel());
        const QByteArray before = host.stateBytes();
        const QJsonObject request = connectRequest();
        QJsonObject connected = reply(true, "connected");
        connected.insert("peer", request["peer"]);
        QCOMPARE(host.requestAs(user, request), connected);

        const QByteArray state = host.stateBytes();
        const QJsonObject refused =
            reply(false, "connected", "Недостаточно прав для управления VPN");
        QCOMPARE(host.requestAs(65534, StatusRequest), reply(true, "connected"));
        // After a flood of its status requests, the refusal is still logged, with the uid.
        QCOMPARE(host.requestAs(65534, DisconnectRequest, 100), refused);
        QCOMPARE(host.requestAs(65534, QJsonObject{{"command", "alwaysOn"}, {"enabled", true}}),
                 refused);
        QCOMPARE(host.requestAs(65534, connectRequest(clientConfig({{"client_ip", "10.8.1.9"}}))),
                 refused);
        QCOMPARE(host.stateBytes(), state);
        QVERIFY(host.daemonLog().contains("command refused \"disconnect\" uid= 65534"));
        // The count of those refused after it, when the second is over, by command.
        QTRY_VERIFY(host.daemonLog().contains("commands refused in the last second"));
        for (const QString &line : host.daemonLog().split('\n').filter("in the last second"))
            QVERIFY2(line.contains(QRegularExpression("more \"(alwaysOn|connect)\" commands")),
                     qPrintable(line));
        QCOMPARE(host.requestAs(user, StatusRequest), connected);
        QCOMPARE(host.request(StatusRequest), connected); // root sees it all
        // Another who may command sees the status, not this connection's settings.
        QCOMPARE(host.requestAs(user == 501 ? 502 : 501, StatusRequest), reply(true, "connected"));
        QCOMPARE(host.requestAs(user, DisconnectRequest), reply(true, "disconnected"));
        QCOMPARE(host.stateBytes(), before);
        ::umount("/dev/console");
    }

    // With the descriptors a macOS daemon gets, hundreds of clients that say
    // nothing or never finish a line, and junk: an honest client is served
    // within a second every time, the socket stays the service's, and the
    // log does not grow with the crowd.
    void floodOfClients()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        host.descriptors = 256;
        QVERIFY(host.startDaemon());
        const auto inode = [] {
            struct stat info = {};
            ::stat(QFile::encodeName(VpnServiceProtocol::socketPath()).constData(), &info);
            return info.st_ino;
        };
        const ino_t before = inode();
        QCOMPARE(load({"--seconds", "8", "--honest", "4", "--idle", "300", "--slow", "200",
                       "--junk", "50", "--max-latency-ms", QString::number(MaxLatencyMs), "--pid",
                       QString::number(host.daemon().processId())}),
                 0);
        QCOMPARE(inode(), before);
        QCOMPARE(host.request(StatusRequest), reply(true, "disconnected"));
        // Its budget holds the log to some 16 KiB a second; without, megabytes.
        const qsizetype logged = host.daemonLog().toUtf8().size();
        std::printf("the log after 8 s of flood: %lld bytes\n", qlonglong(logged));
        QVERIFY(logged < 256 * 1024);
        QCOMPARE(host.stopDaemon(), 0);
    }

    // Unfinished requests of 15 MiB each, from 16 clients at once: the
    // service holds a bounded share of them, and honest clients are served.
    void floodOfLargeRequests()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QVERIFY(host.startDaemon());
        QCOMPARE(load({"--seconds", "6", "--honest", "2", "--idle", "0", "--slow", "0", "--junk",
                       "0", "--big", "16", "--pid", QString::number(host.daemon().processId())}),
                 0);
        const long peakKiB = host.peakMemoryKiB();
        std::printf("peak memory under 16 requests of 15 MiB: %ld KiB\n", peakKiB);
#ifndef __SANITIZE_ADDRESS__ // whose quarantine keeps freed memory
        // 240 MiB if each were held whole; the bound is 32 MiB and a chunk each.
        QVERIFY(peakKiB < 128 * 1024);
#endif
        QCOMPARE(host.stopDaemon(), 0);
    }

    // When descriptors run out altogether, the service keeps listening: the
    // client that has waited longest without a request makes way.
    void descriptorsRunningOut()
    {
        REQUIRE_SANDBOX();
#ifdef __SANITIZE_ADDRESS__
        QSKIP("the sanitizers' own checks need descriptors of their own");
#endif
        SystemHost host;
        host.descriptors = 40;
        host.fixedCeiling = true;
        QVERIFY(host.startDaemon());
        QCOMPARE(load({"--seconds", "4", "--honest", "2", "--idle", "100", "--slow", "0", "--junk",
                       "0", "--max-latency-ms", "1000"}),
                 0);
        QCOMPARE(host.request(StatusRequest), reply(true, "disconnected"));
        QVERIFY(host.daemonLog().contains("client closed to make room"));
        QCOMPARE(host.daemon().state(), QProcess::Running);
    }

    // The network's resolver does not choose what leaves outside the tunnel:
    // not the tunnel's own DNS servers or addresses, not loopback, and not
    // an intranet address for a name that is not local.
    void networkCannotSteerTheBypass()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        host.writeHostsFile("127.0.0.1\tlocalhost\n1.1.1.1\ttarvex.com\n127.0.0.1\ttarvex.com\n"
                            "10.8.1.2\ttarvex.com\n198.51.100.10\ttarvex.com\n"
                            "1.0.0.1\tintranet.example\n10.1.2.4\tintranet.example\n"
                            "203.0.113.80\tintranet.example\n");
        QVERIFY(host.startWithTunnel());
        QCOMPARE(host.request(connectRequest(clientConfig(), 2, {"intranet.example"}))["status"],
                 "connected");
        QStringList around;
        for (const QJsonValue &route : host.state()["routes"].toArray()) {
            if (route["gateway"] == "192.168.1.1" && route["destination"] != "default")
                around.append(route["destination"].toString());
        }
        around.sort();
        QCOMPARE(around, (QStringList{"198.51.100.10", "203.0.113.5", "203.0.113.80"}));
        QVERIFY(host.daemonLog().contains(
            "not routed around the tunnel: \"tarvex.com\" \"1.1.1.1: the tunnel's own\""));
    }

    // Nothing a client sends can start a line of its own in the log, and a
    // megabyte of it costs the log a few hundred bytes.
    void clientsCannotForgeLogLines()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QVERIFY(host.startWithTunnel());
        const qsizetype logged = host.daemonLog().toUtf8().size();
        host.rawRequest({QByteArray(1024 * 1024 - 1, '\x01') + "\n"});
        host.rawRequest({QByteArray(2000, '\x01') + "\n"});
        QVERIFY(host.daemonLog().toUtf8().size() - logged < 4096);
        const QString forged = "[MacVpnServiceServer] listening \"/private/tmp/FORGED\" euid= 0";
        host.rawRequest({"x\r" + forged.toUtf8() + "\u2028" + forged.toUtf8() + "\n"});
        host.request(hostileRequest({{"last", QJsonObject{{"Jc", "4\n" + forged}}}}));
        host.request({{"command", "status\n" + forged}});
        QCOMPARE(host.stopDaemon(), 0);
        const QString log = host.daemonLog();
        QVERIFY(!log.contains(QChar('\r')) && !log.contains(QChar(0x2028)));
        for (const QString &line : log.split('\n'))
            QVERIFY2(!line.startsWith(forged), qPrintable(line));
    }
};

QTEST_GUILESS_MAIN(TestSystemAttacks)
#include "tst_system_attacks.moc"
