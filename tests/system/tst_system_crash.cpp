// The daemon killed (SIGKILL) at every step of a connect and a disconnect,
// or the machine restarted under it: the next start must leave the host
// exactly as it was before the connect, and the next connect must work.
#include "Requests.h"
#include "SystemHost.h"

#include <QJsonDocument>
#include <QRandomGenerator>
#include <QTest>

#include <csignal>
#include <cstdio>
#include <future>

namespace {

// Ends with an empty line, the one form that pinning and unpinning leave
// byte for byte as it was.
const QByteArray Hosts = "127.0.0.1\tlocalhost\n198.51.100.10\ttarvex.com\n\n";

// Full tunnel with an exclusion: every kind of host change there is.
QJsonObject everything()
{
    return connectRequest(clientConfig(), 2, {"203.0.113.0/24"});
}

qint64 tunnelPid(const SystemHost &host)
{
    const QJsonObject interfaces = host.state().value("interfaces").toObject();
    for (auto it = interfaces.begin(); it != interfaces.end(); ++it) {
        if (const qint64 owner = it.value().toObject().value("owner").toInteger())
            return owner;
    }
    return 0;
}

} // namespace

class TestSystemCrash : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<SystemHost> host;
    QByteArray before;

    void start()
    {
        host = std::make_unique<SystemHost>();
        host->installTunnel();
        host->writeHostsFile(Hosts);
        QVERIFY(host->startDaemon());
        before = host->stateBytes();
    }

    // After a restart the host is as it was, and a full tunnel comes up again.
    void verifyRestored(const QString &what)
    {
        host->setFaults({});
        QVERIFY2(host->startDaemon(), qPrintable(what));
        QVERIFY2(host->stateBytes() == before, qPrintable(what));
        QVERIFY2(host->hostsFile() == Hosts, qPrintable(what));
        QVERIFY2(!host->tunnelRunning(), qPrintable(what));
        QVERIFY2(host->request(connectRequest()).value("status") == "connected", qPrintable(what));
    }

private Q_SLOTS:
    void everyStepOfConnectAndDisconnect()
    {
        REQUIRE_SANDBOX();
        start();
        const qsizetype first = host->calls().size();
        QCOMPARE(host->request(everything()).value("status").toString(),
                 QStringLiteral("connected"));
        host->request(DisconnectRequest);
        const qsizetype steps = host->calls().size() - first;
        QCOMPARE(host->stateBytes(), before);

        for (qsizetype step = 1; step <= steps; ++step) {
            host->killDaemonAt(host->calls().size() + step);
            if (host->request(everything()).value("ok").toBool())
                host->request(DisconnectRequest);
            host->waitForKill();
            const QString what = QStringLiteral("killed after step %1 of %2").arg(step).arg(steps);
            verifyRestored(what);
            host->request(DisconnectRequest);
        }
        std::printf("kill points tried: %lld, host restored after every one\n", qlonglong(steps));
    }

    // Routes and the utun are gone after a restart of the machine; DNS
    // settings and /etc/hosts are not.
    void machineRestartedWhileConnected()
    {
        REQUIRE_SANDBOX();
        start();
        QCOMPARE(host->request(everything()).value("status").toString(),
                 QStringLiteral("connected"));
        ::kill(pid_t(host->daemon().processId()), SIGKILL);
        ::kill(pid_t(tunnelPid(*host)), SIGKILL);
        QVERIFY(host->daemon().waitForFinished(10000));
        QJsonObject rebooted = QJsonDocument::fromJson(before).object();
        rebooted.insert("services", host->state().value("services"));
        host->writeState(rebooted);
        QVERIFY(host->stateBytes() != before);
        verifyRestored("after a restart of the machine");
    }
};

QTEST_GUILESS_MAIN(TestSystemCrash)
#include "tst_system_crash.moc"
