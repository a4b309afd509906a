// The daemon as a process: its socket, the framing of requests, a second
// instance, and how it ends.
#include "Requests.h"
#include "SystemHost.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonParseError>
#include <QTest>

#include <csignal>
#include <sys/stat.h>

class TestSystemService : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<SystemHost> shared;

private Q_SLOTS:
    void initTestCase()
    {
        if (SystemHost::unavailableReason().isEmpty()) {
            shared = std::make_unique<SystemHost>();
            QVERIFY(shared->startDaemon());
        }
    }

    void framesRequests_data()
    {
        QTest::addColumn<QByteArray>("sent"); // "|" between separate writes
        QTest::addColumn<QByteArray>("answer");
        const QByteArray status = R"({"error":"","ok":true,"status":"disconnected"})";
        const auto refused = [](const QString &error) {
            return VpnServiceProtocol::encodeMessage(reply(false, "disconnected", error)).trimmed();
        };
        const QByteArray line = R"({"command":"status"})";
        const auto row = [](const char *name, const QByteArray &sent, const QByteArray &answer) {
            QTest::newRow(name) << sent << answer;
        };
        // clang-format off
        row("status", line + "\n", status);
        row("over several writes", "{\"comm|and\":\"sta|tus\"}|\n", status);
        row("only the first of two lines", line + "\n" + R"({"command":"disconnect"})" + "\n", status);
        row("carriage return", line + "\r\n", status);
        row("capitalised command", R"({"command":"Status"})" "\n", refused("unknown command"));
        row("no command", R"({"peer":{}})" "\n", refused("unknown command"));
        row("command not text", R"({"command":7})" "\n", refused("unknown command"));
        row("an array", R"(["status"])" "\n", refused(QJsonParseError().errorString()));
        row("not JSON", "not json\n", refused(QJsonParseError{0, QJsonParseError::IllegalValue}.errorString()));
        row("past the limit", QByteArray(1024 * 1024 + 1, 'x'), refused("request too large"));
        row("at the limit", QByteArray(1024 * 1024 - 21, ' ') + line + "\n", status);
        // clang-format on
    }

    void framesRequests()
    {
        REQUIRE_SANDBOX();
        QFETCH(QByteArray, sent);
        QFETCH(QByteArray, answer);
        QList<QByteArray> pieces = sent.size() < 1000 ? sent.split('|') : QList<QByteArray>{sent};
        QCOMPARE(shared->rawRequest(pieces, 10000), answer + "\n");
        QVERIFY(shared->daemonLog().contains(
            "[MacVpnServiceServer] listening \"/private/tmp/corvel-client-service.sock\" euid= 0"));
        QVERIFY(!shared->daemonLog().contains("not running as root"));
    }

    // A socket file left by a crash is replaced, and the new one is 0666
    // whatever the umask.
    void replacesLeftoverSocket()
    {
        REQUIRE_SANDBOX();
        shared.reset();
        SystemHost host;
        const QByteArray path = QFile::encodeName(VpnServiceProtocol::socketPath());
        QCOMPARE(QProcess::execute("python3", {"-c",
                                               "import socket, sys\n"
                                               "socket.socket(socket.AF_UNIX).bind(sys.argv[1])",
                                               path}),
                 0);
        const mode_t previous = ::umask(077);
        const bool started = host.startDaemon();
        ::umask(previous);
        QVERIFY(started);
        struct stat info = {};
        QCOMPARE(::stat(path.constData(), &info), 0);
        QCOMPARE(info.st_mode & 0777, mode_t(0666));
        QVERIFY(!host.daemonLog().contains("stale socket detected"));
    }

    // Unreachable, the older instance ends rather than run on for nobody;
    // the socket file it leaves is the newer one's.
    void secondInstanceTakesOver()
    {
        REQUIRE_SANDBOX();
        SystemHost first;
        QVERIFY(first.startDaemon());
        SystemHost second;
        QVERIFY(second.startDaemon());
        QVERIFY(first.daemon().waitForFinished(10000));
        QCOMPARE(first.daemon().exitCode(), 1);
        QVERIFY(first.daemonLog().contains("[MacVpnServiceServer] socket lost"));
        // The probe that started it may have reached the first one.
        QTRY_COMPARE_WITH_TIMEOUT(second.request(StatusRequest), reply(true, "disconnected"), 5000);
        QCOMPARE(second.stopDaemon(), 0);
        QVERIFY(!QFileInfo::exists(VpnServiceProtocol::socketPath()));
    }

    // A directory at the socket's path, taken for a stale socket first.
    void exitsWithOneWhenItCannotListen()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QVERIFY(QDir().mkpath(VpnServiceProtocol::socketPath()));
        QVERIFY(!host.startDaemon());
        QCOMPARE(host.daemon().exitCode(), 1);
        QVERIFY(host.daemonLog().contains("[MacVpnServiceServer] listen failed"));
        QDir(VpnServiceProtocol::socketPath()).removeRecursively();
    }

    void endsInOrderOnStopSignals_data()
    {
        QTest::addColumn<int>("signalNumber");
        QTest::newRow("SIGTERM") << SIGTERM;
        QTest::newRow("SIGINT") << SIGINT;
        QTest::newRow("SIGHUP") << SIGHUP;
    }

    void endsInOrderOnStopSignals()
    {
        REQUIRE_SANDBOX();
        QFETCH(int, signalNumber);
        SystemHost host;
        QVERIFY(host.startWithTunnel());
        const QByteArray before = host.stateBytes();
        QCOMPARE(host.request(connectRequest())["status"], "connected");
        QCOMPARE(host.stopDaemon(signalNumber), 0);
        QCOMPARE(host.stateBytes(), before);
        QVERIFY(!host.hostsFile().contains("TARVEX"));
        QVERIFY(!QFileInfo::exists(VpnServiceProtocol::socketPath()));
    }
};

QTEST_GUILESS_MAIN(TestSystemService)
#include "tst_system_service.moc"
