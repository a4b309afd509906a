// tarvexctl against the unmodified daemon on its real socket.
#include "ClientConfig.h"
#include "SystemHost.h"
#include "Tarvexctl.h"

#include <QJsonDocument>
#include <QTest>

class TestSystemClient : public QObject
{
    Q_OBJECT

private:
    const QString connectionString = encodeConnectionString(awgDocument(clientConfig().lastConfig));

private Q_SLOTS:
    void saysWhenServiceIsAway()
    {
        REQUIRE_SANDBOX();
        SystemHost host; // no daemon started
        const CtlRun run = runTarvexctl({"status"});
        QCOMPARE(run.exitCode, 2);
        QVERIFY(run.err.contains("not reachable"));
    }

    void connectsShowsAndDisconnects()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QVERIFY(host.startWithTunnel());
        const QByteArray before = host.stateBytes();

        const CtlRun connect = runTarvexctl({"connect", connectionString});
        QCOMPARE(connect.exitCode, 0);
        QVERIFY(connect.out.contains("status: connected"));
        QVERIFY(connect.err.contains("connecting"));

        // The status reply line as it came, then the details reply line.
        const CtlRun status = runTarvexctl({"--json", "status"});
        QCOMPARE(status.exitCode, 0);
        const QStringList lines = status.out.split('\n', Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 2);
        const QJsonObject reply = QJsonDocument::fromJson(lines[0].toUtf8()).object();
        QCOMPARE(reply.value("status").toString(), QStringLiteral("connected"));
        QCOMPARE(reply.value("peer").toObject().value("config").toString(), connectionString);
        const QJsonObject details = QJsonDocument::fromJson(lines[1].toUtf8()).object();
        QCOMPARE(details.value("details").toObject().value("interface").toString(),
                 QStringLiteral("utun2"));
        QVERIFY(!details.contains("peer"));

        const CtlRun readable = runTarvexctl({"status"});
        QVERIFY(readable.out.contains(
            QString("connection string: %1 characters").arg(connectionString.size())));
        QVERIFY(!readable.out.contains(connectionString)); // it carries keys

        const CtlRun disconnect = runTarvexctl({"disconnect"});
        QCOMPARE(disconnect.exitCode, 0);
        QVERIFY(disconnect.out.contains("status: disconnected"));
        QCOMPARE(host.stateBytes(), before);
    }

    void sendsSplitTunnelSettings()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QVERIFY(host.startWithTunnel());
        QCOMPARE(runTarvexctl({"connect", connectionString, "--only", "10.1.2.3", "192.0.2.0/24"})
                     .exitCode,
                 0);
        QVERIFY(host.calls("route").contains(
            QStringList{"-n", "add", "-host", "10.1.2.3", "-interface", "utun2"}));
        QVERIFY(host.calls("networksetup").isEmpty());
        const CtlRun status = runTarvexctl({"status"});
        QVERIFY(status.out.contains("only through tunnel: 10.1.2.3, 192.0.2.0/24"));
        QCOMPARE(
            runTarvexctl({"connect", connectionString, "--exclude", "203.0.113.0/24"}).exitCode, 0);
        QVERIFY(host.calls("route").contains(
            QStringList{"-n", "add", "-net", "203.0.113.0/24", "192.168.1.1"}));
    }

    void reportsFailedConnect()
    {
        REQUIRE_SANDBOX();
        SystemHost host; // no tunnel program
        QVERIFY(host.startDaemon());
        const CtlRun run = runTarvexctl({"connect", connectionString});
        QCOMPARE(run.exitCode, 1);
        QVERIFY(run.out.contains("status: error"));
        QVERIFY(run.out.contains("error: Не найден amneziawg-go рядом с приложением"));
    }
};

QTEST_GUILESS_MAIN(TestSystemClient)
#include "tst_system_client.moc"
