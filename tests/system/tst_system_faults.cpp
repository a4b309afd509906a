// Many connect/disconnect cycles against the unmodified daemon, each with a
// fault drawn from a seeded generator: a set-up command failing or hanging at
// a random step, the tunnel program dying while connected, or SIGTERM at a
// random moment. After every cycle the simulated host and /etc/hosts must be
// exactly as before. TARVEX_FAULT_SEED and TARVEX_FAULT_CYCLES change the run.
#include "ClientConfig.h"
#include "ConnectionString.h"
#include "SystemHost.h"

#include "protocol/VpnServiceProtocol.h"

#include <QRandomGenerator>
#include <QTest>

#include <csignal>
#include <cstdio>
#include <future>

namespace {

// Ends with an empty line, the one form that pinning and unpinning leave
// byte for byte as it was.
const QByteArray Hosts = "127.0.0.1\tlocalhost\n198.51.100.10\ttarvex.com\n\n";

QJsonObject connectRequest()
{
    const ParsedVpnConfig config = clientConfig();
    const QJsonObject split{{"enabled", true},
                            {"mode", 2},
                            {"entries", QJsonArray{QJsonObject{{"value", "203.0.113.0/24"}}}}};
    return {{"command", "connect"},
            {"config", VpnServiceProtocol::parsedConfigToJson(config)},
            {"peer", QJsonObject{{"config", encodeConnectionString(awgDocument(config.lastConfig))},
                                 {"splitTunnel", split}}}};
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

class TestSystemFaults : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyCycleRestoresTheHost()
    {
        REQUIRE_SANDBOX();
        const quint32 seed = qEnvironmentVariableIsSet("TARVEX_FAULT_SEED")
                                 ? quint32(qEnvironmentVariableIntValue("TARVEX_FAULT_SEED"))
                                 : 20261122u;
        const int cycles = qEnvironmentVariableIsSet("TARVEX_FAULT_CYCLES")
                               ? qEnvironmentVariableIntValue("TARVEX_FAULT_CYCLES")
                               : 40;
        QRandomGenerator random(seed);

        SystemHost host;
        host.installTunnel();
        host.writeHostsFile(Hosts);
        QVERIFY(host.startDaemon());
        const QByteArray state = host.stateBytes();
        const QJsonObject request = connectRequest();

        // The set-up commands of a clean connect are the steps a fault can hit.
        QCOMPARE(host.request(request).value("status").toString(), QStringLiteral("connected"));
        QStringList steps;
        for (const QStringList &call : host.calls()) {
            const QString line = call.join(' ');
            if (!line.contains(" delete ") && !line.startsWith("dscacheutil") &&
                !line.startsWith("killall"))
                steps.append(line);
        }
        host.request({{"command", "disconnect"}});
        QCOMPARE(host.stateBytes(), state);
        QCOMPARE(host.hostsFile(), Hosts);

        int counts[5] = {};
        for (int cycle = 0; cycle < cycles; ++cycle) {
            const int draw = int(random.bounded(20));
            const int scenario = draw < 4 ? 0 : draw < 13 ? 1 : draw < 14 ? 2 : draw < 17 ? 3 : 4;
            ++counts[scenario];
            const QString step = steps.at(int(random.bounded(steps.size())));
            const QString what =
                QStringList{"clean", "fail: " + step, "hang: " + step, "tunnel dies", "SIGTERM"}.at(
                    scenario);
            std::printf("cycle %d: %s\n", cycle, qPrintable(what));
            std::fflush(stdout);

            if (scenario == 1 || scenario == 2)
                host.setToolFaults({QString(scenario == 1 ? "fail:" : "hang:") + step});
            if (scenario == 4) {
                auto reply = std::async(std::launch::async,
                                        [&host, &request] { return host.request(request); });
                QTest::qWait(int(random.bounded(600)));
                QCOMPARE(host.stopDaemon(SIGTERM), 0);
                reply.wait();
            } else {
                host.request(request);
                if (scenario == 3) {
                    if (const qint64 pid = tunnelPid(host))
                        ::kill(pid_t(pid), SIGKILL);
                    QTest::qWait(50);
                }
                host.setToolFaults({});
                QCOMPARE(host.request({{"command", "disconnect"}}).value("status").toString(),
                         QStringLiteral("disconnected"));
            }

            QVERIFY2(!host.tunnelRunning(),
                     qPrintable(QString("seed %1 cycle %2: %3").arg(seed).arg(cycle).arg(what)));
            QVERIFY2(host.stateBytes() == state,
                     qPrintable(QString("seed %1 cycle %2: %3").arg(seed).arg(cycle).arg(what)));
            QVERIFY2(host.hostsFile() == Hosts,
                     qPrintable(QString("seed %1 cycle %2: %3").arg(seed).arg(cycle).arg(what)));
            if (scenario == 4) {
                host.setToolFaults({});
                QVERIFY(host.startDaemon());
            }
        }
        std::printf("seed %u: %d cycles (%d clean, %d failing step, %d hanging step, %d tunnel "
                    "died, %d SIGTERM), "
                    "host identical after every one\n",
                    seed, cycles, counts[0], counts[1], counts[2], counts[3], counts[4]);
    }
};

QTEST_GUILESS_MAIN(TestSystemFaults)
#include "tst_system_faults.moc"
