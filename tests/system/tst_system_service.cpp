// The daemon as a process: its socket, the framing of requests, a second
// instance, and how it ends.
#include "Requests.h"
#include "SystemHost.h"

#include <cstdio>

namespace {

// Listens as another user at the paths given; whatever it hears goes to
// /tmp/squatter.log.
const char *const Squatter = R"(import socket, sys, threading
def serve(path):
    server = socket.socket(socket.AF_UNIX)
    server.bind(path)
    server.listen()
    open(path + ".ready", "w").close()
    while True:
        client, _ = server.accept()
        try:
            heard = client.recv(65536)
            if heard:
                open("/tmp/squatter.log", "ab").write(heard)
            client.sendall(b'{"error":"","ok":true,"status":"connected"}\n')
        except OSError:
            pass
        client.close()
for path in sys.argv[1:]:
    threading.Thread(target=serve, args=(path,), daemon=True).start()
threading.Event().wait()
)";

} // namespace

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
        row("past the limit", QByteArray(16 * 1024 * 1024 + 1, 'x'), refused("request too large"));
        row("at the limit", QByteArray(16 * 1024 * 1024 - 21, ' ') + line + "\n", status);
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
            "[MacVpnServiceServer] listening \"/var/run/tarvex/vpn-service.sock\" euid= 0"));
        QVERIFY(!shared->daemonLog().contains("not running as root"));
    }

    // A socket file left by a crash is replaced, and the new one is 0666 in
    // a directory of root's that is 0755, whatever the umask and whatever
    // mode the directory was left with.
    void replacesLeftoverSocket()
    {
        REQUIRE_SANDBOX();
        shared.reset();
        SystemHost host;
        const QByteArray path = QFile::encodeName(VpnServiceProtocol::socketPath());
        QVERIFY(QDir().mkpath(QFileInfo(path).path()));
        QCOMPARE(::chmod(QFile::encodeName(QFileInfo(path).path()).constData(), 0700), 0);
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
        QCOMPARE(::stat(QFile::encodeName(QFileInfo(path).path()).constData(), &info), 0);
        QCOMPARE(info.st_mode & 07777, mode_t(0755));
    }

    // Only root's own service is ever handed a request. Another user may
    // listen at the old path in /private/tmp, and nothing but root can put
    // anything at the service's path: here root plants a link to another
    // user's socket there while the service is down. tarvexctl sends it
    // nothing, not even a status; once up, the service is the one that answers.
    void noOneStandsInForTheService()
    {
        REQUIRE_SANDBOX();
        shared.reset();
        SystemHost host;
        QProcess squatter;
        squatter.start("setpriv",
                       {"--reuid", "65534", "--regid", "65534", "--clear-groups",
                        "/usr/bin/python3", "-c", Squatter,
                        "/private/tmp/corvel-client-service.sock", "/tmp/squatter.sock"});
        QTRY_VERIFY(QFileInfo::exists("/tmp/squatter.sock.ready"));
        QVERIFY(QDir().mkpath(QFileInfo(VpnServiceProtocol::socketPath()).path()));
        QVERIFY(QFile::link("/tmp/squatter.sock", VpnServiceProtocol::socketPath()));
        const QString string = encodeConnectionString(awgDocument(clientConfig().lastConfig));
        for (const QStringList &command : {QStringList{"connect", string}, QStringList{"status"}}) {
            QProcess ctl;
            ctl.start(SystemHost::binary("tarvexctl"), command);
            QVERIFY(ctl.waitForFinished(30000));
            QCOMPARE(ctl.exitCode(), 2);
            const QByteArray said = ctl.readAllStandardError();
            QVERIFY2(said.contains("Служба VPN не запущена или подменена"), said);
        }
        QVERIFY(host.startDaemon());
        QProcess ctl;
        ctl.start(SystemHost::binary("tarvexctl"), {"status"});
        QVERIFY(ctl.waitForFinished(30000));
        QCOMPARE(ctl.readAllStandardOutput(), "status: disconnected\n");
        QVERIFY(!QFileInfo::exists("/tmp/squatter.log")); // not a byte reached it
        squatter.kill();
        squatter.waitForFinished();
    }

    // The service holds its path from its first moment: while it undoes
    // what a crash left, which here takes a while, it answers status at once
    // and refuses to connect until it is done.
    void answersWhileItRecovers()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QVERIFY(host.startWithTunnel());
        QCOMPARE(host.request(connectRequest())["status"], "connected");
        ::kill(pid_t(host.daemon().processId()), SIGKILL);
        QVERIFY(host.daemon().waitForFinished(5000));
        host.setFaults({"hang:networksetup"});
        const qsizetype ready = host.daemonLog().count("[MacVpnServiceServer] ready");
        QVERIFY(host.startDaemon(QString(), false));
        QCOMPARE(host.request(StatusRequest), reply(true, "disconnected"));
        QJsonObject refused = reply(false, "disconnected",
                                    "Служба VPN ещё восстанавливает настройки системы после "
                                    "прошлого запуска; повторите через несколько секунд");
        refused.insert("recovering", true);
        QCOMPARE(host.request(connectRequest()), refused);
        // Both answered while the recovery still waited for the hung tool.
        QCOMPARE(host.daemonLog().count("[MacVpnServiceServer] ready"), ready);
        QTRY_VERIFY_WITH_TIMEOUT(host.daemonLog().count("[MacVpnServiceServer] ready") > ready,
                                 20000);
        host.setFaults({});
        QCOMPARE(host.request(connectRequest())["status"], "connected");
    }

    // A client that says nothing is closed once its own time is up, however
    // many silent ones came after it.
    void closesSilentClientsOnTime()
    {
        REQUIRE_SANDBOX();
        shared.reset();
        SystemHost host;
        QVERIFY(host.startDaemon());
        QLocalSocket first, second;
        QElapsedTimer clock;
        clock.start();
        first.connectToServer(VpnServiceProtocol::socketPath());
        QVERIFY(first.waitForConnected(5000));
        QTest::qWait(4000);
        second.connectToServer(VpnServiceProtocol::socketPath());
        QVERIFY(second.waitForConnected(5000));
        QVERIFY(first.waitForDisconnected(30000));
        std::printf("a silent client closed after %lld ms\n", qlonglong(clock.elapsed()));
        // Its own 5 s, not the 9 s of the one after it: that one is still open.
        QVERIFY(!second.waitForDisconnected(1000));
        QVERIFY(second.waitForDisconnected(30000));
    }

    // A socket file replaced under the service, not removed, leaves it as
    // unreachable: it ends rather than serve nobody.
    void endsWhenItsSocketFileIsReplaced()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QVERIFY(host.startDaemon());
        QCOMPARE(QProcess::execute("python3",
                                   {"-c",
                                    "import os, socket, sys\n"
                                    "socket.socket(socket.AF_UNIX).bind(sys.argv[1] + '.new')\n"
                                    "os.rename(sys.argv[1] + '.new', sys.argv[1])",
                                    VpnServiceProtocol::socketPath()}),
                 0);
        QVERIFY(host.daemon().waitForFinished(10000));
        QCOMPARE(host.daemon().exitCode(), 1);
        QVERIFY(host.daemonLog().contains("socket lost \"socket file replaced\""));
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

    // A directory at the socket's path is cleared away; a file where the
    // socket's directory belongs keeps the service from listening.
    void exitsWithOneWhenItCannotListen()
    {
        REQUIRE_SANDBOX();
        shared.reset();
        const QString directory = QFileInfo(VpnServiceProtocol::socketPath()).path();
        QVERIFY(QDir().mkpath(VpnServiceProtocol::socketPath() + "/inside"));
        {
            SystemHost host;
            QVERIFY(host.startDaemon());
            QCOMPARE(host.request(StatusRequest), reply(true, "disconnected"));
        }
        QDir(directory).removeRecursively();
        QFile file(directory);
        QVERIFY(file.open(QIODevice::WriteOnly));
        SystemHost host;
        QVERIFY(!host.startDaemon());
        QCOMPARE(host.daemon().exitCode(), 1);
        QVERIFY(host.daemonLog().contains("[MacVpnServiceServer] listen failed"));
        QFile::remove(directory);
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
