#include "BackendAccess.h"
#include "ClientConfig.h"
#include "FakeHost.h"
#include "LogCapture.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>

namespace {

using Statuses = QList<PlatformVpnBackend::Status>;

Statuses statuses(const QSignalSpy &spy)
{
    Statuses list;
    for (const QList<QVariant> &arguments : spy)
        list.append(arguments.at(0).value<PlatformVpnBackend::Status>());
    return list;
}

QVariantMap splitPeer(int mode, const QString &destination)
{
    return {{"splitTunnel",
             QVariantMap{{"enabled", true},
                         {"mode", mode},
                         {"entries", QVariantList{QVariantMap{{"value", destination}}}}}}};
}

} // namespace

class TestConnectSequence : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void connectsAndDisconnectsWithoutTrace()
    {
        FakeHost host;
        host.installTunnel();
        host.resolve("tarvex.com", {"198.51.100.10"});
        const QByteArray before = host.stateBytes();
        MacVpnBackend backend(host.environment());
        QSignalSpy changed(&backend, &PlatformVpnBackend::statusChanged);
        QSignalSpy connected(&backend, &PlatformVpnBackend::connected);
        QSignalSpy disconnected(&backend, &PlatformVpnBackend::disconnected);

        backend.connectVpn(clientConfig());
        QCOMPARE(backend.lastError(), QString());
        QCOMPARE(statuses(changed),
                 (Statuses{PlatformVpnBackend::Connecting, PlatformVpnBackend::Connected}));
        QCOMPARE(connected.count(), 1);
        QCOMPARE(MacVpnBackendAccess::tunnelInterface(backend), QStringLiteral("utun2"));
        QCOMPARE(host.calls("networksetup").size(), 7);
        QVERIFY(host.counter("flushcache") >= 2);

        backend.disconnectVpn();
        QCOMPARE(statuses(changed).mid(2),
                 (Statuses{PlatformVpnBackend::Disconnecting, PlatformVpnBackend::Disconnected}));
        QCOMPARE(disconnected.count(), 1);
        QCOMPARE(host.stateBytes(), before);
        QCOMPARE(MacVpnBackendAccess::tunnelProcess(backend).state(), QProcess::NotRunning);

        // A second disconnect changes nothing and cleans nothing.
        LogCapture log;
        backend.disconnectVpn();
        QCOMPARE(disconnected.count(), 2);
        QCOMPARE(changed.count(), 4);
        QVERIFY(!log.contains("[MacVpnBackend] cleanup"));
    }

    void refusesEarlyWithoutTunnelProgram()
    {
        FakeHost host;
        LogCapture log;
        MacVpnBackend backend(host.environment());
        QSignalSpy changed(&backend, &PlatformVpnBackend::statusChanged);
        QSignalSpy errors(&backend, &PlatformVpnBackend::errorOccurred);
        static_cast<PlatformVpnBackend &>(backend).connectVpn(clientConfig());
        QCOMPARE(statuses(changed),
                 (Statuses{PlatformVpnBackend::Connecting, PlatformVpnBackend::Error}));
        QCOMPARE(errors.count(), 1);
        QCOMPARE(backend.lastError(), QStringLiteral("Не найден amneziawg-go рядом с приложением"));
        QCOMPARE(log.count("[MacVpnBackend] cleanup"), 1);
        QVERIFY(log.contains("[MacVpnBackend] amneziawg-go not found"));
        QVERIFY(log.contains("[MacVpnBackend] connectVpn start container= \"amnezia-awg\" "
                             "protocol= \"awg\" host= \"203.0.113.5\""));

        // Disconnecting afterwards clears the error and cleans up once more.
        log.clear();
        backend.disconnectVpn();
        QCOMPARE(statuses(changed).mid(2),
                 (Statuses{PlatformVpnBackend::Disconnecting, PlatformVpnBackend::Disconnected}));
        QCOMPARE(backend.lastError(), QString());
        QCOMPARE(log.count("[MacVpnBackend] cleanup"), 1);
    }

    void failsOnRefusedConfiguration_data()
    {
        QTest::addColumn<QString>("fault");
        QTest::newRow("errno 1") << "errno=1";
    }

    void failsOnRefusedConfiguration()
    {
        QFETCH(QString, fault);
        FakeHost host;
        host.installTunnel();
        host.setTunnelFaults(fault);
        const QByteArray before = host.stateBytes();
        MacVpnBackend backend(host.environment());
        backend.connectVpn(clientConfig());
        QCOMPARE(backend.status(), PlatformVpnBackend::Error);
        QCOMPARE(backend.lastError(),
                 QStringLiteral("Не удалось применить WireGuard/AWG-конфигурацию"));
        QCOMPARE(MacVpnBackendAccess::tunnelProcess(backend).state(), QProcess::NotRunning);
        QVERIFY(host.calls("ifconfig").isEmpty());
        QCOMPARE(host.stateBytes(), before);
    }

    void acceptsUnclosedReplyAfterReadLimit()
    {
        FakeHost host;
        host.installTunnel();
        host.setTunnelFaults("no-close");
        MacVpnBackend backend(host.environment());
        QElapsedTimer clock;
        clock.start();
        backend.connectVpn(clientConfig());
        // The reply is read for its 5 s and what came, "errno=0", decides.
        QVERIFY(clock.elapsed() >= 4900);
        QCOMPARE(backend.status(), PlatformVpnBackend::Connected);
    }

    void skipsGlobalDnsOnlyForOnlySelected()
    {
        FakeHost host;
        host.installTunnel();
        LogCapture log;
        MacVpnBackend backend(host.environment());
        backend.connectVpn(clientConfig(), splitPeer(1, "10.1.2.3"));
        QCOMPARE(backend.status(), PlatformVpnBackend::Connected);
        QVERIFY(log.contains("[MacVpnBackend] skip global DNS for only-selected split tunnel"));
        QVERIFY(host.calls("networksetup").isEmpty());
        const int flushes = host.counter("flushcache");

        // Mode 2 sets DNS again; the new connect first removes the old tunnel.
        host.clearCalls();
        QSignalSpy disconnected(&backend, &PlatformVpnBackend::disconnected);
        backend.connectVpn(clientConfig(), splitPeer(2, "10.1.2.3"));
        QCOMPARE(backend.status(), PlatformVpnBackend::Connected);
        QCOMPARE(disconnected.count(), 0);
        QVERIFY(!host.calls("networksetup").isEmpty());
        QVERIFY(host.counter("flushcache") > flushes);
        QVERIFY(host.calls("route").contains(QStringList{"-n", "delete", "-host", "10.1.2.3"}));
    }

    void destructorUndoesConnection()
    {
        FakeHost host;
        host.installTunnel();
        const QByteArray before = host.stateBytes();
        {
            MacVpnBackend backend(host.environment());
            backend.connectVpn(clientConfig());
            QCOMPARE(backend.status(), PlatformVpnBackend::Connected);
            QVERIFY(host.stateBytes() != before);
        }
        QCOMPARE(host.stateBytes(), before);
    }
};

QTEST_GUILESS_MAIN(TestConnectSequence)
#include "tst_connect_sequence.moc"
