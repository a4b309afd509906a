// Faults while the unmodified daemon changes the host: SIGKILL at every step
// of a connect and a disconnect, the machine restarting under it, and many
// cycles each with a fault drawn from a seeded generator. Afterwards the host
// and /etc/hosts must be exactly as before, and the next connect must work.
// TARVEX_FAULT_SEED and TARVEX_FAULT_CYCLES change the random run.
#include "Requests.h"
#include "SystemHost.h"

#include <QRandomGenerator>
#include <QTest>

#include <csignal>
#include <cstdio>
#include <future>

namespace {

const QByteArray Hosts = "127.0.0.1\tlocalhost\n198.51.100.10\ttarvex.com";

// Full tunnel with an exclusion and the kill switch: every kind of host
// change there is.
QJsonObject everything()
{
    QJsonObject peer = peerFor(clientConfig(), 2, {"203.0.113.0/24"});
    peer.insert("killSwitch", QJsonObject{{"enabled", true}});
    return connectRequest(clientConfig(), peer);
}
const QJsonObject Everything = everything();

} // namespace

class TestSystemFaults : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<SystemHost> host;
    QByteArray before;
    qsizetype killPoints = 0;
    QStringList steps; // the commands of a connect that change the host

    // Starts the daemon and runs one clean cycle, to learn its commands.
    void start()
    {
        host = std::make_unique<SystemHost>();
        host->writeHostsFile(Hosts);
        QVERIFY(host->startWithTunnel());
        before = host->stateBytes();
        const qsizetype first = host->calls().size();
        QCOMPARE(host->request(Everything)["status"], "connected");
        steps.clear();
        for (const QStringList &call : host->calls().mid(first)) {
            if (call[0] != "dscacheutil" && call[0] != "killall" && !call.contains("get") &&
                !call.contains("monitor"))
                steps.append(call.join(' '));
        }
        host->request(DisconnectRequest);
        killPoints = host->calls().size() - first;
        QCOMPARE(host->stateBytes(), before);
    }

    // The daemon, started again if it ended, has left the host as it was;
    // but for the kill switch's block, which after a crash stays until the
    // user disconnects.
    bool restarted()
    {
        if (host->daemon().state() != QProcess::Running && !host->startDaemon())
            return false;
        // A block is said to be in force only when it is.
        const QString block = host->details()["killSwitch"].toString();
        if ((block == "blocking" || block == "on") &&
            !host->pfInForce().contains("block return out quick all"))
            return false;
        if (host->request(StatusRequest)["status"] == "error")
            host->request(DisconnectRequest);
        return true;
    }
    bool restored()
    {
        return restarted() && host->stateBytes() == before && host->hostsFile() == Hosts;
    }

private Q_SLOTS:
    void killedAtEveryStep()
    {
        REQUIRE_SANDBOX();
        start();
        for (qsizetype step = 1; step <= killPoints; ++step) {
            host->killDaemonAt(host->calls().size() + step);
            if (host->request(Everything)["ok"].toBool())
                host->request(DisconnectRequest);
            host->waitForKill();
            host->setFaults({});
            const QByteArray what = QString("killed after step %1").arg(step).toUtf8();
            QVERIFY2(restored(), what);
            QVERIFY2(host->request(connectRequest())["status"] == "connected", what);
            host->request(DisconnectRequest);
        }
        std::printf("kill points tried: %lld, host restored after every one\n",
                    qlonglong(killPoints));
    }

    // Killed while connected to a server named by a host name, its tunnel
    // program left running: the next start finds our routes into the utun
    // still there and deletes them itself, rather than relying on the kernel
    // dropping them with the utun, and knows the one address the server
    // route went to.
    void removesLeftoverRoutesAtStart()
    {
        REQUIRE_SANDBOX();
        start();
        host->writeHostsFile(Hosts + "\n203.0.113.5\tvpn.example\n");
        ParsedVpnConfig named = clientConfig({{"hostName", "vpn.example"}});
        named.hostName = "vpn.example";
        QCOMPARE(host->request(connectRequest(named))["status"], "connected");
        QVERIFY(
            host->state()["routes"].toArray().contains(QJsonObject{{"family", "inet"},
                                                                   {"destination", "203.0.113.5"},
                                                                   {"type", "-host"},
                                                                   {"gateway", "192.168.1.1"},
                                                                   {"interface", "en0"}}));
        ::kill(pid_t(host->daemon().processId()), SIGKILL);
        QVERIFY(host->daemon().waitForFinished(10000));
        const qsizetype first = host->calls().size();
        host->writeHostsFile(Hosts);
        QVERIFY(restored());
        const QList<QStringList> calls = host->calls().mid(first);
        for (const char *half : {"-net 0.0.0.0/1", "-net 128.0.0.0/1", "-inet6 -net ::/1"})
            QVERIFY2(
                calls.contains(QStringList{"rtsock", "delete"} + QString(half).split(' ')),
                half);
    }

    // A disconnect whose undo fails in part: one service's DNS servers and
    // the server route stay, kept in the journal with their errors, and the
    // status says so. The timer finishes the undo; or a restart does, after a
    // crash; or the retry fails again and is kept for the next; or the server
    // route would not go when the gateway moved, and stays where it was. But
    // servers the user chose meanwhile, and another VPN's routes where ours
    // were, are theirs: no retry, connect, disconnect or restart touches them.
    void failedUndoIsKeptAndFinished_data()
    {
        QTest::addColumn<QString>("then");
        for (const char *then : {"timer", "crash", "fails twice", "gateway moved", "user's own DNS",
                                 "another VPN's routes"})
            QTest::newRow(then) << then;
    }

    void failedUndoIsKeptAndFinished()
    {
        REQUIRE_SANDBOX();
        QFETCH(QString, then);
        start();
        QStringList failing = {"fail:networksetup -setdnsservers Wi-Fi",
                               "fail:rtsock delete -host 203.0.113.5"};
        QString left = "Не удалось вернуть прежние настройки системы: DNS службы «Wi-Fi», "
                       "маршрут 203.0.113.5. Служба повторит попытку сама";
        QJsonObject expected = QJsonDocument::fromJson(before).object();
        if (then == "another VPN's routes") {
            failing = {"fail:rtsock delete -net 0.0.0.0/1"};
            left = "Не удалось вернуть прежние настройки системы: маршрут 0.0.0.0/1. Служба "
                   "повторит попытку сама";
        }
        QCOMPARE(host->request(Everything)["status"], "connected");
        host->setFaults(failing);
        if (then == "gateway moved") {
            host->setDefaultGateway("192.168.1.254");
            QTRY_VERIFY(host->daemonLog().contains("route not moved \"203.0.113.5\""));
        }
        QCOMPARE(host->request(DisconnectRequest), reply(false, "error", left));
        const QJsonArray pending = host->details()["pendingUndo"].toArray();
        QCOMPARE(pending.size(), failing.size());
        QCOMPARE(pending.last()["error"], "route: writing to routing socket: routing table overflow");
        host->setDefaultGateway("192.168.1.1");
        if (then == "fails twice") { // retried at the next clean-up, and kept again
            QCOMPARE(host->request(DisconnectRequest), reply(false, "error", left));
            QCOMPARE(host->details()["pendingUndo"].toArray().size(), 2);
        }
        if (then == "user's own DNS") {
            host->setFaults({});
            host->runTool("/usr/sbin/networksetup", {"-setdnsservers", "Wi-Fi", "8.8.8.8"});
            QJsonArray services = expected["services"].toArray();
            QJsonObject wifi = services[0].toObject();
            wifi.insert("dns", QJsonArray{"8.8.8.8"});
            services[0] = wifi;
            expected.insert("services", services);
        }
        QProcess other; // another VPN takes the utun ours had, with its own routes
        if (then == "another VPN's routes") {
            other.start("sleep", {"60"});
            QVERIFY(other.waitForStarted());
            QJsonObject state = host->state();
            QJsonObject interfaces = state["interfaces"].toObject();
            interfaces.insert("utun2", QJsonObject{{"owner", other.processId()}, {"up", true}});
            QJsonArray routes = state["routes"].toArray();
            for (const char *half : {"inet 0.0.0.0/1", "inet 128.0.0.0/1"})
                routes.append(SimulatedHost::route(QString(half) + " -net utun2 utun2"));
            state.insert("interfaces", interfaces);
            state.insert("routes", routes);
            host->writeState(state);
            expected = state;
        }
        host->setFaults({});
        if (then == "crash" || then == "another VPN's routes") {
            ::kill(pid_t(host->daemon().processId()), SIGKILL);
            QVERIFY(host->daemon().waitForFinished(10000));
            QVERIFY(host->startDaemon());
        }
        if (then == "another VPN's routes") { // refused: the routes are taken
            QCOMPARE(host->request(connectRequest())["status"], "error");
            host->request(DisconnectRequest);
        }
        QTRY_COMPARE_WITH_TIMEOUT(host->request(StatusRequest), reply(true, "disconnected"), 20000);
        QCOMPARE(host->stateBytes(), QJsonDocument(expected).toJson());
        QCOMPARE(host->hostsFile(), Hosts);
        other.kill();
        other.waitForFinished();
    }

    // After a crash, someone else's route where one of ours was, another
    // VPN with the utun our tunnel program had (gone with it, as launchd
    // ends the whole job) and routes like ours through it, or another
    // process with the pid our tunnel program had: recovery leaves each alone
    // and undoes the rest. A tunnel program recorded as starting, its pid
    // not yet, is the orphan running it.
    void recoveryTellsOursFromOthers_data()
    {
        QTest::addColumn<QString>("planted"); // a route, "pid" or "no pid"
        QTest::newRow("another's route to the server")
            << "inet 203.0.113.5 -host 192.168.1.254 en0";
        QTest::newRow("another VPN's half route") << "inet 128.0.0.0/1 -net utun1 utun1";
        QTest::newRow("another VPN's utun where ours was") << "utun";
        QTest::newRow("the tunnel program's pid taken") << "pid";
        QTest::newRow("the tunnel program recorded without its pid") << "no pid";
    }

    void recoveryTellsOursFromOthers()
    {
        REQUIRE_SANDBOX();
        QFETCH(QString, planted);
        start();
        QCOMPARE(host->request(Everything)["status"], "connected");
        ::kill(pid_t(host->daemon().processId()), SIGKILL);
        QVERIFY(host->daemon().waitForFinished(10000));
        QProcess other;
        QJsonObject expected = QJsonDocument::fromJson(before).object();
        if (planted == "utun") {
            ::kill(pid_t(host->tunnelPid()), SIGKILL);
            other.start("sleep", {"60"});
            QVERIFY(other.waitForStarted());
            QTRY_VERIFY(host->tunnelPid() == 0);
            QJsonObject interfaces = expected["interfaces"].toObject();
            interfaces.insert("utun2", QJsonObject{{"owner", other.processId()}, {"up", true}});
            expected.insert("interfaces", interfaces);
            QJsonArray routes = expected["routes"].toArray();
            for (const char *half :
                 {"inet 0.0.0.0/1", "inet 128.0.0.0/1", "inet6 ::/1", "inet6 8000::/1"})
                routes.append(SimulatedHost::route(QString(half) + " -net utun2 utun2"));
            expected.insert("routes", routes);
            QJsonObject state = host->state();
            QJsonArray now = state["routes"].toArray();
            for (const QJsonValue &route : std::as_const(routes))
                if (!now.contains(route))
                    now.append(route);
            state.insert("interfaces", interfaces);
            state.insert("routes", now);
            host->writeState(state);
        } else if (planted.endsWith("pid")) {
            other.start("sleep", {"60"});
            QVERIFY(other.waitForStarted());
            QFile session(QString(SystemHost::JournalDir) + "/session.json");
            QVERIFY(session.open(QIODevice::ReadWrite));
            QJsonObject journal = QJsonDocument::fromJson(session.readAll()).object();
            QJsonObject tunnel = journal["tunnel"].toObject();
            if (planted == "pid")
                ::kill(pid_t(tunnel["pid"].toInteger()), SIGKILL);
            tunnel.insert("pid", planted == "pid" ? other.processId() : 0);
            journal.insert("tunnel", tunnel);
            session.resize(0);
            session.write(QJsonDocument(journal).toJson());
        } else {
            QJsonObject state = host->state();
            QJsonArray routes;
            for (const QJsonValue &route : state["routes"].toArray()) {
                if (route["destination"] != planted.section(' ', 1, 1))
                    routes.append(route);
            }
            state.insert("routes", routes << SimulatedHost::route(planted));
            host->writeState(state);
            expected.insert("routes", expected["routes"].toArray()
                                          << SimulatedHost::route(planted));
        }
        QVERIFY(restarted());
        QCOMPARE(host->stateBytes(), QJsonDocument(expected).toJson());
        QVERIFY(planted.contains(' ') || !other.waitForFinished(500)); // still running
        other.kill();
        other.waitForFinished();
    }

    // Routes, utun interfaces and processes are gone after a restart of the
    // machine; DNS settings and /etc/hosts are not. Another program may hold
    // the very utunN ours had, with routes like ours: recorded in another
    // boot, our routes are known to be gone, and its routes stay.
    void machineRestartedWhileConnected()
    {
        REQUIRE_SANDBOX();
        start();
        QCOMPARE(host->request(Everything)["status"], "connected");
        ::kill(pid_t(host->daemon().processId()), SIGKILL);
        ::kill(pid_t(host->tunnelPid()), SIGKILL);
        QVERIFY(host->daemon().waitForFinished(10000));
        QJsonObject rebooted = QJsonDocument::fromJson(before).object();
        QJsonObject interfaces = rebooted["interfaces"].toObject();
        interfaces.insert("utun2", QJsonObject{{"mtu", 1420}, {"up", true}, {"owner", ::getpid()}});
        rebooted.insert("interfaces", interfaces);
        QJsonArray routes = rebooted["routes"].toArray();
        for (const char *half : {"0.0.0.0/1", "128.0.0.0/1"})
            routes.append(QJsonObject{{"family", "inet"},
                                      {"destination", half},
                                      {"type", "-net"},
                                      {"gateway", "utun2"},
                                      {"interface", "utun2"}});
        rebooted.insert("routes", routes);
        const QByteArray another = QJsonDocument(rebooted).toJson();
        rebooted.insert("services", host->state().value("services"));
        host->writeState(rebooted);
        QFile stray("/etc/.hosts.tarvex-Ab12Cd"); // a rewrite of /etc/hosts cut short
        QVERIFY(stray.open(QIODevice::WriteOnly));
        QFile session(QString(SystemHost::JournalDir) + "/session.json");
        QVERIFY(session.open(QIODevice::ReadWrite));
        QJsonObject journal = QJsonDocument::fromJson(session.readAll()).object();
        journal.insert("boot", "a boot before this one");
        session.resize(0);
        session.write(QJsonDocument(journal).toJson());
        session.close();
        QVERIFY(host->startDaemon());
        QCOMPARE(host->stateBytes(), another);
        QCOMPARE(host->hostsFile(), Hosts);
        QVERIFY(!stray.exists());
    }

    // Always on, from boot: a simulated restart of the Mac (pf's state and
    // the session gone, the setting kept) and the block is in force before
    // the service listens. A crash during a pause closes the network again
    // at the restart; a connect that fails returns to the block; a server by
    // name is reached at its last address; turning it off leaves pf as it was.
    void alwaysOnFromBoot()
    {
        REQUIRE_SANDBOX();
        start();
        // A server by name, connected to once: its address is kept for when
        // the block keeps its name from being looked up.
        ParsedVpnConfig named = clientConfig({{"hostName", "vpn.example"}});
        named.hostName = "vpn.example";
        host->writeHostsFile(Hosts + "\n203.0.113.5\tvpn.example\n");
        QCOMPARE(host->request(connectRequest(named))["status"], "connected");
        QCOMPARE(host->request(DisconnectRequest)["status"], "disconnected");
        host->writeHostsFile(Hosts);
        const QJsonObject on{{"command", "alwaysOn"}, {"enabled", true}};
        QCOMPARE(host->request(on)["alwaysOn"].toObject()["verified"], true);
        const auto blocked = [this] {
            return host->pfInForce().contains("block return out quick all") &&
                   host->request(StatusRequest)["alwaysOn"].toObject()["verified"] == true;
        };
        ::kill(pid_t(host->daemon().processId()), SIGKILL);
        QVERIFY(host->daemon().waitForFinished(10000));
        QJsonObject rebooted = host->state();
        rebooted.insert("pf", QJsonDocument::fromJson(before).object()["pf"]);
        host->writeState(rebooted);
        QFile session(QString(SystemHost::JournalDir) + "/session.json");
        QVERIFY(session.remove());
        QVERIFY(host->startDaemon());
        const QString log = host->daemonLog();
        const qsizetype verified = log.lastIndexOf("[MacVpnBackend] block verified");
        QVERIFY(verified >= 0 && verified < log.lastIndexOf("[MacVpnServiceServer] listening"));
        std::printf("always-on after a restart: %s\n",
                    qPrintable(log.mid(verified).section('\n', 0, 0)));
        QVERIFY(blocked());

        QCOMPARE(host->request({{"command", "alwaysOn"}, {"pause", 120}})["ok"], true);
        QVERIFY(host->pfInForce().isEmpty());
        ::kill(pid_t(host->daemon().processId()), SIGKILL);
        QVERIFY(host->daemon().waitForFinished(10000));
        QVERIFY(host->startDaemon());
        QVERIFY(blocked());

        host->setFaults({"fail:ifconfig"});
        QCOMPARE(host->request(connectRequest())["status"], "error");
        host->setFaults({});
        QVERIFY(blocked() && host->pfInForce().filter("utun").isEmpty());
        QCOMPARE(host->request(connectRequest(named))["status"], "connected");
        QVERIFY(
            host->pfInForce().contains("pass quick on utun2 all flags S/SA keep state (if-bound)"));
        // Only what is selected, under always-on: refused before anything is
        // touched, the tunnel up as it was.
        const QByteArray connected = host->stateBytes();
        const QJsonObject refused = host->request(connectRequest(named, 1, {"10.0.0.0/8"}));
        QCOMPARE(refused["ok"], false);
        QCOMPARE(refused["status"], "connected");
        QCOMPARE(host->stateBytes(), connected);
        QCOMPARE(host->request(DisconnectRequest)["status"], "disconnected");
        QVERIFY(blocked() && host->pfInForce().filter("utun").isEmpty());

        // A pause whose give-back hangs: when it ends, the block is back, and
        // never said to be verified while it is not in force.
        host->setFaults({"hang:pfctl -X"});
        QCOMPARE(host->request({{"command", "alwaysOn"}, {"pause", 1}})["ok"], true);
        host->setFaults({});
        QElapsedTimer clock;
        clock.start();
        for (; !blocked(); QTest::qWait(100)) {
            QVERIFY(host->request(StatusRequest)["alwaysOn"].toObject()["verified"] == false ||
                    host->pfInForce().contains("block return out quick all"));
            QVERIFY(clock.elapsed() < 60000);
        }
        const QJsonObject off{{"command", "alwaysOn"}, {"enabled", false}};
        QCOMPARE(host->request(off)["alwaysOn"], QJsonObject({{"enabled", false}}));
        QCOMPARE(host->stateBytes(), before);
    }

    // A set-up command failing or hanging at a random step, the tunnel
    // program dying while connected, SIGTERM at a random moment, or SIGKILL
    // at a random step, sometimes again in the middle of the undo.
    void randomFaults()
    {
        REQUIRE_SANDBOX();
        const auto setting = [](const char *name, int fallback) {
            return qEnvironmentVariableIsSet(name) ? qEnvironmentVariableIntValue(name) : fallback;
        };
        const quint32 seed = quint32(setting("TARVEX_FAULT_SEED", 20261122));
        const int cycles = setting("TARVEX_FAULT_CYCLES", 40);
        QRandomGenerator random(seed);
        start();
        enum Scenario { Clean, Fail, Hang, TunnelDies, Term, Kill, Scenarios };
        const char *const names[] = {"clean",       "failing step", "hanging step",
                                     "tunnel died", "SIGTERM",      "SIGKILL"};
        const int odds[] = {3, 6, 1, 3, 3, 4}; // in 20
        int counts[Scenarios] = {};
        for (int cycle = 0; cycle < cycles; ++cycle) {
            int draw = int(random.bounded(20)), scenario = 0;
            while (draw >= odds[scenario])
                draw -= odds[scenario++];
            ++counts[scenario];
            const QString step = steps.at(int(random.bounded(steps.size())));
            const qsizetype killAt = 1 + qsizetype(random.bounded(killPoints));
            const bool killBefore = random.bounded(2) == 1, killAgain = random.bounded(2) == 1;
            const QString what = QString::asprintf(
                "seed %u cycle %d: %s, step \"%s\", kill %s call %lld%s", seed, cycle,
                names[scenario], qPrintable(step), killBefore ? "before" : "after",
                qlonglong(killAt), killAgain ? " and again in the undo" : "");
            std::printf("%s\n", qPrintable(what));

            if (scenario == Fail || scenario == Hang)
                host->setFaults({QString(scenario == Fail ? "fail:" : "hang:") + step});
            if (scenario == Kill)
                host->killDaemonAt(host->calls().size() + killAt, killBefore);
            if (scenario == Term) {
                auto reply =
                    std::async(std::launch::async, [this] { return host->request(Everything); });
                QTest::qWait(int(random.bounded(600)));
                QCOMPARE(host->stopDaemon(SIGTERM), 0);
                reply.wait();
            } else if (scenario == Kill) {
                if (host->request(Everything)["ok"].toBool())
                    host->request(DisconnectRequest);
                host->waitForKill();
                if (killAgain) {
                    host->killDaemonAt(host->calls().size() + 1 + qsizetype(random.bounded(4)));
                    host->startDaemon(); // may die in the middle of its undo
                }
            } else {
                host->request(Everything);
                if (scenario == TunnelDies && host->tunnelPid())
                    ::kill(pid_t(host->tunnelPid()), SIGKILL), QTest::qWait(50);
                host->setFaults({});
                QCOMPARE(host->request(DisconnectRequest)["status"], "disconnected");
            }
            host->setFaults({});
            QVERIFY2(restored(), qPrintable(what));
        }
        std::printf("seed %u: %d cycles (", seed, cycles);
        for (int i = 0; i < Scenarios; ++i)
            std::printf("%s%d %s", i ? ", " : "", counts[i], names[i]);
        std::printf("), host identical after every one\n");
    }
};

QTEST_GUILESS_MAIN(TestSystemFaults)
#include "tst_system_faults.moc"
