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
#include <QTest>
#include <QUdpSocket>

#include <future>
#include <unistd.h>

namespace {

const QString RuntimeDir = QStringLiteral("/var/run/tarvex-amneziawg");
const QString Key = "AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=";

QString invalid(const QString &field)
{
    return QString("Недопустимое значение %1 в конфигурации VPN").arg(field);
}

// Applies {"last": {...}, "record": {...}, "splitTunnel": {...}, "config": ...}
// to a connect request that is otherwise well formed.
QJsonObject hostileRequest(const QJsonObject &change)
{
    QJsonObject last = change.value("last").toObject();
    const ParsedVpnConfig config = clientConfig(last);
    QJsonObject request = connectRequest(config, 2, {"203.0.113.0/24"});
    QJsonObject configJson = request.value("config").toObject();
    const QJsonObject record = change.value("record").toObject();
    for (auto it = record.begin(); it != record.end(); ++it)
        configJson.insert(it.key(), it.value());
    request.insert("config", change.contains("config") ? change.value("config") : configJson);
    if (change.contains("splitTunnel")) {
        QJsonObject peer = request.value("peer").toObject();
        peer.insert("splitTunnel", change.value("splitTunnel"));
        request.insert("peer", peer);
    }
    return request;
}

QJsonObject splitOf(const QJsonArray &entries)
{
    return {{"enabled", true}, {"mode", 1}, {"entries", entries}};
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

    void refusesHostileValues_data()
    {
        QTest::addColumn<QJsonObject>("change");
        QTest::addColumn<QString>("error");
        const auto row = [](const char *name, const QJsonObject &change, const QString &error) {
            QTest::newRow(name) << change << error;
        };
        row("line feed in Jc", {{"last", QJsonObject{{"Jc", "4\nlisten_port=1"}}}}, invalid("Jc"));
        row("line feed in keep-alive",
            {{"last", QJsonObject{{"persistent_keep_alive", "25\nallowed_ip=0.0.0.0/0"}}}},
            invalid("persistent_keep_alive"));
        row("line feed in allowed_ips",
            {{"last", QJsonObject{{"allowed_ips", QJsonArray{"10.0.0.0/8\nremove=true"}}}}},
            invalid("allowed_ips"));
        row("line feed in the endpoint",
            {{"record", QJsonObject{{"hostName", "203.0.113.5\nset=1"}}}}, invalid("hostName"));
        row("endpoint \"default\"", {{"record", QJsonObject{{"hostName", "default"}}}},
            invalid("hostName"));
        row("port 1e20", {{"last", QJsonObject{{"port", 1e20}}}}, invalid("port"));
        row("no port", {{"last", QJsonObject{{"port", QJsonValue::Null}}}},
            "В конфигурации нет port");
        row("config that is an array", {{"config", QJsonArray{1, 2}}},
            "В конфигурации нет client_priv_key");
        row("client_ip an option", {{"last", QJsonObject{{"client_ip", "-alias"}}}},
            invalid("client_ip"));
        row("mtu an option", {{"last", QJsonObject{{"mtu", "-arp"}}}}, invalid("mtu"));
        row("mtu with a word after it", {{"last", QJsonObject{{"mtu", "1380 up"}}}},
            invalid("mtu"));
        row("dns1 an option", {{"record", QJsonObject{{"dns1", "-setv6off"}}}}, invalid("dns1"));
        row("line feed in dns2", {{"record", QJsonObject{{"dns2", "1.1.1.1\n8.8.8.8"}}}},
            invalid("dns2"));
        row("short private key", {{"last", QJsonObject{{"client_priv_key", "AAAA"}}}},
            invalid("client_priv_key"));
        row("preshared key of 31 bytes", {{"last", QJsonObject{{"psk_key", Key.left(40) + "AA="}}}},
            invalid("psk_key"));
        row("header range upside down", {{"last", QJsonObject{{"H1", "5-1"}}}}, invalid("H1"));
        row("control character in I1", {{"last", QJsonObject{{"I1", "<b 0x01>\x01"}}}},
            invalid("I1"));
        row("split destination an option",
            {{"splitTunnel", splitOf({QJsonObject{{"value", "-host"}}})}},
            invalid("splitTunnel.entries[0].value"));
        row("split entry not an object", {{"splitTunnel", splitOf({"10.0.0.0/8"})}},
            invalid("splitTunnel.entries[0]"));
        QJsonArray many;
        for (int i = 0; i < 257; ++i)
            many.append(QJsonObject{{"value", QString("10.0.%1.%2").arg(i / 256).arg(i % 256)}});
        row("257 split destinations", {{"splitTunnel", splitOf(many)}},
            "Слишком много записей в splitTunnel: не больше 256");
        QJsonArray ranges;
        for (int i = 0; i < 513; ++i)
            ranges.append(QString("10.%1.%2.0/24").arg(i / 256).arg(i % 256));
        row("513 allowed ranges", {{"last", QJsonObject{{"allowed_ips", ranges}}}},
            "Слишком много записей в allowed_ips: не больше 512");
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
        QVERIFY(!shared->tunnelRunning());
        QVERIFY(!QFileInfo::exists(RuntimeDir));
        QCOMPARE(shared->stateBytes(), before);
    }

    // Planted before the service ever made it: by another user, or as a
    // link to somewhere else.
    void refusesRuntimeDirectoryItDidNotMake_data()
    {
        QTest::addColumn<bool>("link");
        QTest::newRow("another user's directory") << false;
        QTest::newRow("symbolic link") << true;
    }

    void refusesRuntimeDirectoryItDidNotMake()
    {
        REQUIRE_SANDBOX();
        QFETCH(bool, link);
        SystemHost host;
        const QString planted = link ? QStringLiteral("/tmp/planted") : RuntimeDir;
        QVERIFY(QDir().mkpath(planted));
        QVERIFY(::chown(QFile::encodeName(planted).constData(), 65534, 65534) == 0);
        if (link)
            QVERIFY(QFile::link(planted, RuntimeDir));
        QFile name(planted + "/amn0.name");
        QVERIFY(name.open(QIODevice::WriteOnly));
        name.write("utun9\n");
        name.close();
        QLocalServer trap;
        QVERIFY(trap.listen(planted + "/utun9.sock"));
        QVERIFY(host.startWithTunnel());
        const QByteArray before = host.stateBytes();

        QCOMPARE(host.request(connectRequest()),
                 reply(false, "error", "Не удалось создать runtime-директорию для VPN"));
        QVERIFY(!trap.waitForNewConnection(100)); // not a byte of the keys reached it
        QVERIFY(!host.tunnelRunning());
        QCOMPARE(host.stateBytes(), before);
    }

    void refusesInterfaceThatIsNotItsOwnUtun()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QVERIFY(host.startWithTunnel({"AWG_STANDIN_FAULTS=name=en0"}));
        const QByteArray before = host.stateBytes();
        const QJsonObject answer = host.request(connectRequest());
        QCOMPARE(answer.value("status").toString(), QStringLiteral("error"));
        QVERIFY(answer.value("error").toString().startsWith("Не удалось создать VPN-интерфейс: "));
        QVERIFY(host.calls("ifconfig").isEmpty());
        QVERIFY(host.daemonLog().contains("[MacVpnBackend] name file names no utun interface"));
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
        const QJsonObject request = connectRequest(
            clientConfig(), 1, {"one.unanswered.example", "two.unanswered.example", "10.1.2.3"});
        QElapsedTimer clock;
        clock.start();
        auto connecting =
            std::async(std::launch::async, [&host, request] { return host.request(request); });
        QTest::qWait(500);
        for (int i = 0; i < 4; ++i) {
            QElapsedTimer answered;
            answered.start();
            QCOMPARE(host.request(StatusRequest).value("status").toString(),
                     QStringLiteral("connecting"));
            QVERIFY(answered.elapsed() < 1000);
            QTest::qWait(500);
        }
        QCOMPARE(connecting.get().value("status").toString(), QStringLiteral("connected"));
        QVERIFY2(clock.elapsed() < 8000, qPrintable(QString::number(clock.elapsed())));
        QVERIFY(host.daemonLog().contains("name lookup timed out \"one.unanswered.example\""));
        QVERIFY(host.calls("route").contains(
            QStringList{"-n", "add", "-host", "10.1.2.3", "-interface", "utun2"}));
    }
};

QTEST_GUILESS_MAIN(TestSystemAttacks)
#include "tst_system_attacks.moc"
