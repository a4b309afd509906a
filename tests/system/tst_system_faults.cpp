// Many connect/disconnect cycles against the unmodified daemon, each with a
// fault drawn from a seeded generator: a set-up command failing or hanging at
// a random step, the tunnel program dying while connected, SIGTERM at a
// random moment, or SIGKILL at a random step, sometimes again in the middle
// of the undo at the next start. After every cycle the simulated host and
// /etc/hosts must be exactly as before. TARVEX_FAULT_SEED and
// TARVEX_FAULT_CYCLES change the run.
#include "Requests.h"
#include "SystemHost.h"

#include <QRandomGenerator>
#include <QTest>

#include <csignal>
#include <cstdio>
#include <future>

namespace {

// Ends with an empty line, the one form that pinning and unpinning leave
// byte for byte as it was.
const QByteArray Hosts = "127.0.0.1\tlocalhost\n198.51.100.10\ttarvex.com\n\n";

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
        const QJsonObject request = connectRequest(clientConfig(), 2, {"203.0.113.0/24"});

        // The set-up commands of a clean connect are the steps a fault can hit;
        // every command of a connect and a disconnect is a point to be killed at.
        const qsizetype first = host.calls().size();
        QCOMPARE(host.request(request).value("status").toString(), QStringLiteral("connected"));
        QStringList steps;
        for (const QStringList &call : host.calls()) {
            const QString line = call.join(' ');
            if (!line.contains(" delete ") && !line.contains(" get ") &&
                !line.startsWith("dscacheutil") && !line.startsWith("killall"))
                steps.append(line);
        }
        host.request(DisconnectRequest);
        const qsizetype killPoints = host.calls().size() - first;
        QCOMPARE(host.stateBytes(), state);
        QCOMPARE(host.hostsFile(), Hosts);

        enum Scenario { Clean, Fail, Hang, TunnelDies, Term, Kill, Scenarios };
        const char *const names[] = {"clean",       "failing step", "hanging step",
                                     "tunnel died", "SIGTERM",      "SIGKILL"};
        int counts[Scenarios] = {};
        for (int cycle = 0; cycle < cycles; ++cycle) {
            const int draw = int(random.bounded(20));
            const auto scenario = Scenario(draw < 3    ? Clean
                                           : draw < 9  ? Fail
                                           : draw < 10 ? Hang
                                           : draw < 13 ? TunnelDies
                                           : draw < 16 ? Term
                                                       : Kill);
            ++counts[scenario];
            const QString step = steps.at(int(random.bounded(steps.size())));
            const qsizetype killAt =
                host.calls().size() + 1 + qsizetype(random.bounded(killPoints));
            const bool killBefore = random.bounded(2) == 1;
            const bool killAgain = random.bounded(2) == 1;
            QString what = QLatin1String(names[scenario]);
            if (scenario == Fail || scenario == Hang)
                what += ": " + step;
            if (scenario == Kill)
                what += QString(" %1 step %2%3")
                            .arg(killBefore ? "before" : "after")
                            .arg(killAt - host.calls().size())
                            .arg(killAgain ? ", and again during the undo" : "");
            std::printf("cycle %d: %s\n", cycle, qPrintable(what));
            std::fflush(stdout);
            const QByteArray context =
                QString("seed %1 cycle %2: %3").arg(seed).arg(cycle).arg(what).toUtf8();

            if (scenario == Fail || scenario == Hang)
                host.setFaults({QString(scenario == Fail ? "fail:" : "hang:") + step});
            if (scenario == Kill)
                host.killDaemonAt(killAt, killBefore);
            if (scenario == Term) {
                auto reply = std::async(std::launch::async,
                                        [&host, &request] { return host.request(request); });
                QTest::qWait(int(random.bounded(600)));
                QCOMPARE(host.stopDaemon(SIGTERM), 0);
                reply.wait();
                QVERIFY(host.startDaemon());
            } else if (scenario == Kill) {
                if (host.request(request).value("ok").toBool())
                    host.request(DisconnectRequest);
                host.waitForKill();
                if (killAgain) {
                    host.killDaemonAt(host.calls().size() + 1 + qsizetype(random.bounded(4)));
                    host.startDaemon(); // may die in the middle of its undo
                }
                host.setFaults({});
                if (host.daemon().state() != QProcess::Running)
                    QVERIFY(host.startDaemon());
            } else {
                host.request(request);
                if (scenario == TunnelDies) {
                    if (const qint64 pid = tunnelPid(host))
                        ::kill(pid_t(pid), SIGKILL);
                    QTest::qWait(50);
                }
                host.setFaults({});
                QCOMPARE(host.request(DisconnectRequest).value("status").toString(),
                         QStringLiteral("disconnected"));
            }

            QVERIFY2(!host.tunnelRunning(), context.constData());
            QVERIFY2(host.stateBytes() == state, context.constData());
            QVERIFY2(host.hostsFile() == Hosts, context.constData());
        }
        std::printf("seed %u: %d cycles (", seed, cycles);
        for (int i = 0; i < Scenarios; ++i)
            std::printf("%s%d %s", i ? ", " : "", counts[i], names[i]);
        std::printf("), host identical after every one\n");
    }
};

QTEST_GUILESS_MAIN(TestSystemFaults)
#include "tst_system_faults.moc"
