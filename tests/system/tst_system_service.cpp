#include "SystemHost.h"

#include "protocol/VpnServiceProtocol.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <csignal>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

class TestSystemService : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void answersStatus()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QVERIFY(host.startDaemon());
        QCOMPARE(host.rawRequest("{\"command\":\"status\"}\n"),
                 QByteArray("{\"error\":\"\",\"ok\":true,\"status\":\"disconnected\"}\n"));
        QCOMPARE(host.stopDaemon(), 0);
        QVERIFY(host.daemonLog().contains(
            QStringLiteral("[MacVpnServiceServer] listening "
                           "\"/private/tmp/corvel-client-service.sock\" euid= 0")));
        QVERIFY(!host.daemonLog().contains(QStringLiteral("not running as root")));
    }

    void replacesLeftoverSocket()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        const QByteArray path = QFile::encodeName(VpnServiceProtocol::socketPath());
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        qstrncpy(address.sun_path, path.constData(), sizeof address.sun_path);
        QCOMPARE(::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        ::close(fd);

        QVERIFY(host.startDaemon());
        QCOMPARE(host.request({{QStringLiteral("command"), QStringLiteral("status")}})
                     .value(QStringLiteral("ok"))
                     .toBool(),
                 true);
        QVERIFY(!host.daemonLog().contains(QStringLiteral("stale socket detected")));
    }

    void socketModeIgnoresUmask()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        const mode_t previous = ::umask(077);
        const bool started = host.startDaemon();
        ::umask(previous);
        QVERIFY(started);
        struct stat info
        {
        };
        QCOMPARE(::stat(QFile::encodeName(VpnServiceProtocol::socketPath()).constData(), &info), 0);
        QCOMPARE(info.st_mode & 0777, mode_t(0666));
        QVERIFY(S_ISSOCK(info.st_mode));
    }

    void secondInstanceTakesOver()
    {
        REQUIRE_SANDBOX();
        SystemHost first;
        QVERIFY(first.startDaemon());
        SystemHost second; // same fixed paths: the newer daemon owns the socket
        QVERIFY(second.startDaemon());
        // Unreachable now, the older one ends rather than run on for nobody.
        QVERIFY(first.daemon().waitForFinished(10000));
        QCOMPARE(first.daemon().exitCode(), 1);
        QVERIFY(first.daemonLog().contains("[MacVpnServiceServer] socket lost"));
        QVERIFY(QFileInfo::exists(VpnServiceProtocol::socketPath()));
        QCOMPARE(second.request({{"command", "status"}}).value("ok").toBool(), true);
        QCOMPARE(second.stopDaemon(), 0);
        QVERIFY(!QFileInfo::exists(VpnServiceProtocol::socketPath()));
    }

    void exitsWithOneWhenItCannotListen()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QDir(QStringLiteral("/private/tmp")).removeRecursively();
        QFile blocker(QStringLiteral("/private/tmp"));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        QVERIFY(!host.startDaemon());
        QCOMPARE(host.daemon().state(), QProcess::NotRunning);
        QCOMPARE(host.daemon().exitCode(), 1);
        QVERIFY(host.daemonLog().contains(QStringLiteral("[MacVpnServiceServer] listen failed")));
        QFile::remove(QStringLiteral("/private/tmp"));
        QDir().mkpath(QStringLiteral("/private/tmp"));
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
        QVERIFY(host.startDaemon());
        QCOMPARE(host.stopDaemon(signalNumber), 0);
        QVERIFY(!QFileInfo::exists(VpnServiceProtocol::socketPath()));
        QVERIFY(host.daemonLog().contains(QStringLiteral("[MacVpnBackend] cleanup")));
    }
};

QTEST_GUILESS_MAIN(TestSystemService)
#include "tst_system_service.moc"
