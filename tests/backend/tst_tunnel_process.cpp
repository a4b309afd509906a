#include "BackendAccess.h"
#include "FakeHost.h"
#include "LogCapture.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QSignalSpy>
#include <QTest>

namespace {

void writeFile(const QString &path, const QByteArray &bytes, QFile::Permissions permissions)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(bytes);
    file.close();
    QVERIFY(file.setPermissions(permissions));
}

const QString AdminMessage = QStringLiteral(
    "Не удалось создать VPN-интерфейс: amneziawg-go не может создать utun-интерфейс без прав "
    "администратора. Нужен привилегированный daemon/helper.");

} // namespace

class TestTunnelProcess : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void notFoundAnywhere()
    {
        FakeHost host;
        LogCapture log;
        MacVpnBackend backend(host.environment());
        QCOMPARE(backend.findTunnelBinary(), QString());
        QCOMPARE(log.count(QStringLiteral("[MacVpnBackend] check tunnel binary")), 2);
        QVERIFY(
            log.contains(QStringLiteral("\"%1/../Resources/amneziawg-go\"").arg(host.appDir())));
    }

    void skipsNonExecutable()
    {
        FakeHost host;
        host.installTunnel(false);
        QDir(host.path(QString())).mkpath(QStringLiteral("Resources"));
        const QString resources = host.path(QStringLiteral("Resources/amneziawg-go"));
        writeFile(resources, "#!/bin/sh\n", QFile::ReadOwner | QFile::ExeOwner);
        MacVpnBackend backend(host.environment());
        QCOMPARE(QDir::cleanPath(backend.findTunnelBinary()), resources);
    }

    void startsAndLearnsInterface()
    {
        FakeHost host;
        host.installTunnel();
        LogCapture log;
        MacVpnBackend backend(host.environment());
        QVERIFY(backend.startTunnelProcess());
        QCOMPARE(MacVpnBackendAccess::tunnelInterface(backend), QStringLiteral("utun2"));
        QVERIFY(log.contains(
            QStringLiteral("[MacVpnBackend] start process \"%1/amneziawg-go\" QList(\"-f\", "
                           "\"utun\") WG_TUN_NAME_FILE= \"%2/amn0.name\"")
                .arg(host.appDir(), host.runtimeDir())));
        QVERIFY(log.contains(QStringLiteral("[MacVpnBackend] tunnel interface \"utun2\"")));
        backend.stopTunnelProcess();
        QCOMPARE(MacVpnBackendAccess::tunnelProcess(backend).state(), QProcess::NotRunning);
    }

    void waitsForSocketAfterName()
    {
        FakeHost host;
        host.installTunnel();
        host.setTunnelFaults(QStringLiteral("late-socket"));
        LogCapture log;
        MacVpnBackend backend(host.environment());
        QVERIFY(backend.startTunnelProcess());
        QCOMPARE(MacVpnBackendAccess::tunnelInterface(backend), QStringLiteral("utun2"));
        QVERIFY(log.contains(QStringLiteral("[MacVpnBackend] test uapi socket failed")));
    }

    void rewordsOperationNotPermitted()
    {
        FakeHost host;
        host.installTunnel();
        host.setTunnelFaults(QStringLiteral("eperm"));
        MacVpnBackend backend(host.environment());
        QSignalSpy errors(&backend, &PlatformVpnBackend::errorOccurred);
        QElapsedTimer clock;
        clock.start();
        QVERIFY(!backend.startTunnelProcess());
        QVERIFY(clock.elapsed() < 3000); // the exit ends the wait early
        QCOMPARE(backend.lastError(), AdminMessage);
        QCOMPARE(errors.count(), 1);
    }

    void givesUpWhenNoNameComes()
    {
        FakeHost host;
        host.installTunnel();
        host.setTunnelFaults(QStringLiteral("noname"));
        // A name left by an earlier run must never be taken for the new one.
        writeFile(host.path(QStringLiteral("run/amn0.name")), "utun9\n",
                  QFile::ReadOwner | QFile::WriteOwner);
        LogCapture log;
        MacVpnBackend backend(host.environment());
        QElapsedTimer clock;
        clock.start();
        QVERIFY(!backend.startTunnelProcess());
        QVERIFY(clock.elapsed() >= 4900);
        QCOMPARE(backend.lastError(),
                 QStringLiteral(
                     "Не удалось создать VPN-интерфейс: не удалось получить имя utun-интерфейса"));
        QVERIFY(!log.contains(QStringLiteral("utun9")));
        QVERIFY(log.contains(QStringLiteral(
            "[MacVpnBackend] waitForTunnelName timeout processState= QProcess::Running")));
        // Left running for the caller's clean-up to stop.
        QCOMPARE(MacVpnBackendAccess::tunnelProcess(backend).state(), QProcess::Running);
        backend.cleanup();
    }

    void reportsProgramOutputAsDetail()
    {
        FakeHost host;
        writeFile(host.path(QStringLiteral("app/amneziawg-go")),
                  "#!/bin/sh\necho 'first line'\necho 'tun: device busy' >&2\nexit 3\n",
                  QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        MacVpnBackend backend(host.environment());
        QVERIFY(!backend.startTunnelProcess());
        QCOMPARE(backend.lastError(),
                 QStringLiteral("Не удалось создать VPN-интерфейс: first line\ntun: device busy"));
    }

    void reportsStartFailure()
    {
        FakeHost host; // nothing to start: the empty program fails to start
        MacVpnBackend backend(host.environment());
        QVERIFY(!backend.startTunnelProcess());
        QVERIFY(
            backend.lastError().startsWith(QStringLiteral("Не удалось запустить amneziawg-go: ")));
    }

    void reportsRuntimeDirectoryFailure()
    {
        FakeHost host;
        host.installTunnel();
        writeFile(host.path(QStringLiteral("blocker")), "", QFile::ReadOwner);
        MacHostEnvironment env = host.environment();
        env.runtimeDir = host.path(QStringLiteral("blocker/run"));
        MacVpnBackend backend(env);
        QVERIFY(!backend.startTunnelProcess());
        QCOMPARE(backend.lastError(),
                 QStringLiteral("Не удалось создать runtime-директорию для VPN"));
    }

    void killsProgramThatIgnoresTerminate()
    {
        FakeHost host;
        host.installTunnel();
        host.setTunnelFaults(QStringLiteral("ignore-term"));
        MacVpnBackend backend(host.environment());
        QVERIFY(backend.startTunnelProcess());
        QElapsedTimer clock;
        clock.start();
        backend.stopTunnelProcess();
        QVERIFY(clock.elapsed() >= 4900);
        QCOMPARE(MacVpnBackendAccess::tunnelProcess(backend).state(), QProcess::NotRunning);

        clock.restart();
        backend.stopTunnelProcess(); // nothing runs: returns at once
        QVERIFY(clock.elapsed() < 100);
    }
};

QTEST_GUILESS_MAIN(TestTunnelProcess)
#include "tst_tunnel_process.moc"
