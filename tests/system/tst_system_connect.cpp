#include "Requests.h"
#include "SimHost.h"
#include "SystemHost.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QLocalSocket>
#include <QTest>

#include <csignal>
#include <future>

namespace {

const QByteArray OriginalHosts = "127.0.0.1\tlocalhost\n::1\tlocalhost ip6-localhost ip6-loopback\n"
                                 "198.51.100.10\ttarvex.com\n";

// Sends a connect for the configuration, with a peer carrying its string.
QJsonObject connectWith(const SystemHost &host, const ParsedVpnConfig &config, int splitMode = 0,
                        const QStringList &destinations = {})
{
    return host.request(connectRequest(config, splitMode, destinations));
}

bool hasRoute(const QJsonObject &state, const QString &destination, const QString &via)
{
    for (const QJsonValue &value : state.value("routes").toArray()) {
        const QJsonObject route = value.toObject();
        if (route.value("destination").toString() == destination &&
            route.value("gateway").toString() == via)
            return true;
    }
    return false;
}

QStringList dnsOf(const QJsonObject &state, const QString &service)
{
    for (const QJsonValue &value : state.value("services").toArray()) {
        if (value.toObject().value("name").toString() == service) {
            QStringList servers;
            for (const QJsonValue &server : value.toObject().value("dns").toArray())
                servers.append(server.toString());
            return servers;
        }
    }
    return {};
}

} // namespace

class TestSystemConnect : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void fullTunnelLeavesNothingBehind()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QVERIFY(host.startWithTunnel());
        const QByteArray before = host.stateBytes();
        const ParsedVpnConfig config = clientConfig();
        const QJsonObject peer = peerFor(config);

        for (int cycle = 0; cycle < 2; ++cycle) {
            const QJsonObject reply = host.request(connectRequest(config, peer));
            QCOMPARE(reply,
                     (QJsonObject{
                         {"error", ""}, {"ok", true}, {"peer", peer}, {"status", "connected"}}));

            const QJsonObject state = host.state();
            QVERIFY(
                hasRoute(state, "203.0.113.5", "192.168.1.1")); // the server, outside the tunnel
            QVERIFY(
                hasRoute(state, "198.51.100.10", "192.168.1.1")); // the control plane, outside too
            for (const char *half : {"0.0.0.0/1", "128.0.0.0/1", "::/1", "8000::/1"})
                QVERIFY2(hasRoute(state, half, "utun2"), half);
            const QJsonObject utun2 =
                state.value("interfaces").toObject().value("utun2").toObject();
            QCOMPARE(utun2.value("inet").toString(), QStringLiteral("10.8.1.2"));
            QCOMPARE(utun2.value("mtu").toInt(), 1420);
            QCOMPARE(utun2.value("inet6").toArray(), QJsonArray{"fd58:baa6:dead::1"});
            for (const char *service : {"Wi-Fi", "Ethernet", "Thunderbolt Bridge"})
                QCOMPARE(dnsOf(state, service), (QStringList{"1.1.1.1", "1.0.0.1"}));
            QCOMPARE(dnsOf(state, "Bluetooth PAN"), QStringList{"10.9.9.9"});
            QVERIFY(host.hostsFile().endsWith(
                "# BEGIN TARVEX_VPN_CLIENT\n198.51.100.10\ttarvex.com\n# END TARVEX_VPN_CLIENT\n"));

            QCOMPARE(host.request(StatusRequest),
                     (QJsonObject{
                         {"error", ""}, {"ok", true}, {"peer", peer}, {"status", "connected"}}));
            QCOMPARE(host.request(DisconnectRequest),
                     (QJsonObject{{"error", ""}, {"ok", true}, {"status", "disconnected"}}));
            QCOMPARE(host.stateBytes(), before);
            // The first pin and unpin leave one more line feed; later cycles add none.
            QCOMPARE(host.hostsFile(), OriginalHosts + "\n");
            QVERIFY(!host.tunnelRunning());
        }
        QCOMPARE(host.request(StatusRequest),
                 (QJsonObject{{"error", ""}, {"ok", true}, {"status", "disconnected"}}));
    }

    void undoesSplitTunnelExactly_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<QStringList>("destinations");
        QTest::addColumn<QStringList>("routed"); // destination@via present while connected
        QTest::addColumn<QStringList>("notRouted");
        QTest::addColumn<bool>("dnsChanged");
        QTest::newRow("only selected") << 1 << QStringList{"10.1.2.3", "192.0.2.0/24"}
                                       << QStringList{"10.1.2.3@utun2", "192.0.2.0/24@utun2"}
                                       << QStringList{"0.0.0.0/1@utun2"} << false;
        QTest::newRow("exclusions") << 2 << QStringList{"203.0.113.0/24", "2001:db8::/32"}
                                    << QStringList{"203.0.113.0/24@192.168.1.1", "0.0.0.0/1@utun2"}
                                    << QStringList{"2001:db8::/32@192.168.1.1"} << true;
    }

    void undoesSplitTunnelExactly()
    {
        REQUIRE_SANDBOX();
        QFETCH(int, mode);
        QFETCH(QStringList, destinations);
        QFETCH(QStringList, routed);
        QFETCH(QStringList, notRouted);
        QFETCH(bool, dnsChanged);
        SystemHost host;
        QVERIFY(host.startWithTunnel());
        const QByteArray before = host.stateBytes();
        const ParsedVpnConfig config = clientConfig();
        const QJsonObject reply = connectWith(host, config, mode, destinations);
        QCOMPARE(reply.value("status").toString(), QStringLiteral("connected"));
        const QJsonObject state = host.state();
        for (const QString &route : routed)
            QVERIFY2(hasRoute(state, route.section('@', 0, 0), route.section('@', 1)),
                     qPrintable(route));
        for (const QString &route : notRouted)
            QVERIFY2(!hasRoute(state, route.section('@', 0, 0), route.section('@', 1)),
                     qPrintable(route));
        QCOMPARE(dnsOf(state, "Wi-Fi") == (QStringList{"1.1.1.1", "1.0.0.1"}), dnsChanged);
        QCOMPARE(host.calls("networksetup").isEmpty(), !dnsChanged);
        host.request(DisconnectRequest);
        QCOMPARE(host.stateBytes(), before);
    }

    void undoesEveryFailedStep_data()
    {
        QTest::addColumn<QString>("setup"); // missing, plain, not-executable
        QTest::addColumn<QStringList>("environment");
        QTest::addColumn<QStringList>("toolFaults");
        QTest::addColumn<int>("splitMode");
        QTest::addColumn<QString>("error");
        QTest::addColumn<bool>("pinned"); // did the failed connect reach the bypass?

        const QString admin =
            "Не удалось создать VPN-интерфейс: amneziawg-go не может создать utun-интерфейс без "
            "прав "
            "администратора. Нужен привилегированный daemon/helper.";
        const QString refused = "Не удалось применить WireGuard/AWG-конфигурацию";
        QTest::newRow("tunnel missing") << "missing" << QStringList() << QStringList() << 0
                                        << "Не найден amneziawg-go рядом с приложением" << false;
        QTest::newRow("not executable") << "not-executable" << QStringList() << QStringList() << 0
                                        << "Не найден amneziawg-go рядом с приложением" << false;
        QTest::newRow("operation not permitted")
            << "plain" << QStringList{"AWG_STANDIN_FAULTS=eperm"} << QStringList() << 0 << admin
            << false;
        QTest::newRow("never names interface")
            << "plain" << QStringList{"AWG_STANDIN_FAULTS=noname"} << QStringList() << 0
            << "Не удалось создать VPN-интерфейс: не удалось получить имя utun-интерфейса" << false;
        QTest::newRow("errno 1") << "plain" << QStringList{"AWG_STANDIN_FAULTS=errno=1"}
                                 << QStringList() << 0 << refused << false;
        QTest::newRow("no reply") << "plain" << QStringList{"AWG_STANDIN_FAULTS=no-reply"}
                                  << QStringList() << 0 << refused << false;
        QTest::newRow("ifconfig fails")
            << "plain" << QStringList() << QStringList{"fail:ifconfig utun2 inet 10.8.1.2"} << 0
            << "Не удалось настроить IPv4 интерфейса: ifconfig: simulated failure" << false;
        QTest::newRow("server route fails")
            << "plain" << QStringList() << QStringList{"fail:route -n add -host 203.0.113.5"} << 0
            << "Не удалось добавить маршрут до сервера: route: simulated failure" << false;
        QTest::newRow("IPv4 half fails")
            << "plain" << QStringList() << QStringList{"fail:route -n add -net 128.0.0.0/1"} << 0
            << "Не удалось добавить IPv4 маршрут: route: simulated failure" << true;
        QTest::newRow("split route fails")
            << "plain" << QStringList() << QStringList{"fail:route -n add -host 10.1.2.3"} << 1
            << "Не удалось добавить маршрут раздельного туннелирования: route: simulated failure"
            << true;
        QTest::newRow("exclusion fails")
            << "plain" << QStringList() << QStringList{"fail:route -n add -host 10.1.2.3"} << 2
            << "Не удалось добавить исключение раздельного туннелирования: route: simulated failure"
            << true;
        QTest::newRow("tool hangs")
            << "plain" << QStringList() << QStringList{"hang:ifconfig utun2 inet 10.8.1.2"} << 0
            << "Не удалось настроить IPv4 интерфейса: Process crashed"
            << false; // killed after its time-out
    }

    void undoesEveryFailedStep()
    {
        REQUIRE_SANDBOX();
        QFETCH(QString, setup);
        QFETCH(QStringList, environment);
        QFETCH(QStringList, toolFaults);
        QFETCH(int, splitMode);
        QFETCH(QString, error);
        QFETCH(bool, pinned);
        SystemHost host;
        if (setup != QLatin1String("missing"))
            host.installTunnel(setup != QLatin1String("not-executable"));
        QVERIFY(host.startDaemon(environment));
        const QByteArray before = host.stateBytes();
        host.setToolFaults(toolFaults);

        const ParsedVpnConfig config = clientConfig();
        const QJsonObject reply = connectWith(host, config, splitMode, {"10.1.2.3"});
        QCOMPARE(reply, (QJsonObject{{"error", error}, {"ok", false}, {"status", "error"}}));
        QVERIFY(!host.tunnelRunning());
        QCOMPARE(host.stateBytes(), before);
        QCOMPARE(host.hostsFile(), pinned ? OriginalHosts + "\n" : OriginalHosts);
        QCOMPARE(host.request(StatusRequest),
                 (QJsonObject{{"error", error}, {"ok", true}, {"status", "error"}}));

        // A disconnect after the failure clears the error and cleans up again.
        QCOMPARE(host.request(DisconnectRequest),
                 (QJsonObject{{"error", ""}, {"ok", true}, {"status", "disconnected"}}));
        QCOMPARE(host.stateBytes(), before);
    }

    // The tunnel program takes an IPv6 endpoint only in brackets, and the
    // server route goes by the IPv6 default route.
    void ipv6Endpoint()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QVERIFY(host.startWithTunnel());
        const QByteArray before = host.stateBytes();
        ParsedVpnConfig config = clientConfig({{"hostName", "2001:db8::5"}});
        config.hostName = "2001:db8::5";
        QCOMPARE(connectWith(host, config).value("status").toString(), QStringLiteral("connected"));
        QVERIFY(hasRoute(host.state(), "2001:db8::5", "fe80::1%en0"));
        host.request(DisconnectRequest);
        QCOMPARE(host.stateBytes(), before);
    }

    // The Mac loses its network, then joins another one and gets a cable
    // plugged in, all while connected.
    void followsChangesOfNetwork()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QVERIFY(host.startWithTunnel());
        const auto changeNetwork = [](QJsonObject state, bool gone) {
            QJsonArray routes;
            for (const QJsonValue &route : state.value("routes").toArray()) {
                if (route.toObject().value("destination") != "default" ||
                    route.toObject().value("family") != "inet")
                    routes.append(route);
            }
            if (!gone)
                routes.append(QJsonObject{{"family", "inet"},
                                          {"destination", "default"},
                                          {"type", "-net"},
                                          {"gateway", "10.0.0.1"},
                                          {"interface", "en5"}});
            state.insert("routes", routes);
            QJsonArray services = state.value("services").toArray();
            if (!gone)
                services.append(QJsonObject{
                    {"name", "USB LAN"}, {"enabled", true}, {"dns", QJsonArray{"10.0.0.53"}}});
            state.insert("services", services);
            return state;
        };
        const QJsonObject elsewhere = changeNetwork(host.state(), false);
        QCOMPARE(
            connectWith(host, clientConfig(), 2, {"203.0.113.0/24"}).value("status").toString(),
            QStringLiteral("connected"));

        // The monitor, killed, is started again.
        const auto killMonitor = [] {
            for (const QString &pid : QDir("/proc").entryList(QDir::Dirs)) {
                QFile command("/proc/" + pid + "/cmdline");
                if (command.open(QIODevice::ReadOnly) &&
                    command.readAll().split('\0') ==
                        QList<QByteArray>{"/sbin/route", "-n", "monitor", ""})
                    return ::kill(pid.toInt(), SIGKILL) == 0;
            }
            return false;
        };
        bool killed = false;
        for (int i = 0; i < 300 && !killed; ++i) { killed = killMonitor(); if (!killed) QTest::qWait(50); }
        if (!killed) {
            qDebug().noquote() << host.daemonLog().right(6000);
            for (const QString &pid : QDir("/proc").entryList(QDir::Dirs)) {
                QFile command("/proc/" + pid + "/cmdline");
                if (command.open(QIODevice::ReadOnly)) qDebug() << pid << command.readAll();
            }
        }
        QVERIFY(killed);
        QTRY_VERIFY_WITH_TIMEOUT(
            host.daemonLog().contains("route monitor exited; starting it again"), 15000);
        QTest::qWait(1500);
        host.writeState(changeNetwork(host.state(), true));
        QTRY_VERIFY_WITH_TIMEOUT(host.daemonLog().contains("routes kept"), 15000);
        QVERIFY(hasRoute(host.state(), "203.0.113.5", "192.168.1.1"));

        host.writeState(changeNetwork(host.state(), false));
        for (const char *moved : {"203.0.113.5", "198.51.100.10", "203.0.113.0/24"})
            QTRY_VERIFY2_WITH_TIMEOUT(hasRoute(host.state(), moved, "10.0.0.1"), moved, 15000);
        QTRY_COMPARE_WITH_TIMEOUT(dnsOf(host.state(), "USB LAN"),
                                  (QStringList{"1.1.1.1", "1.0.0.1"}), 15000);
        QVERIFY(host.daemonLog().contains(
            "[MacVpnBackend] default gateway changed \"192.168.1.1\" -> \"10.0.0.1\""));

        QCOMPARE(host.request(DisconnectRequest), reply(true, "disconnected"));
        QCOMPARE(host.stateBytes(), SimHost::serialise(elsewhere));
    }

    void dnsFailureDoesNotStopConnect()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QVERIFY(host.startWithTunnel());
        const QByteArray before = host.stateBytes();
        host.setToolFaults({"fail:networksetup"});
        const ParsedVpnConfig config = clientConfig();
        QCOMPARE(connectWith(host, config).value("status").toString(), QStringLiteral("connected"));
        host.setToolFaults({});
        host.request(DisconnectRequest);
        QCOMPARE(host.stateBytes(), before);
    }

    void reconnectReplacesTunnel()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QVERIFY(host.startWithTunnel());
        const QByteArray before = host.stateBytes();
        const ParsedVpnConfig config = clientConfig();
        QCOMPARE(connectWith(host, config).value("ok").toBool(), true);
        const ParsedVpnConfig second = clientConfig({{"client_ip", "10.8.1.9/32"}});
        const QJsonObject reply = connectWith(host, second);
        QCOMPARE(reply.value("status").toString(), QStringLiteral("connected"));
        const QJsonObject interfaces = host.state().value("interfaces").toObject();
        QCOMPARE(interfaces.value("utun2").toObject().value("inet").toString(),
                 QStringLiteral("10.8.1.9"));
        QVERIFY(!interfaces.contains("utun3")); // the first tunnel is gone
        QVERIFY(!host.daemonLog().contains("status changed PlatformVpnBackend::Disconnecting"));
        host.request(DisconnectRequest);
        QCOMPARE(host.stateBytes(), before);
    }

    void disconnectTwice()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QVERIFY(host.startWithTunnel());
        const ParsedVpnConfig config = clientConfig();
        connectWith(host, config);
        host.request(DisconnectRequest);
        const int cleanups = host.daemonLog().count("[MacVpnBackend] cleanup");
        QCOMPARE(host.request(DisconnectRequest),
                 (QJsonObject{{"error", ""}, {"ok", true}, {"status", "disconnected"}}));
        QCOMPARE(host.daemonLog().count("[MacVpnBackend] cleanup"), cleanups);
    }

    void servesRequestsDuringNameWait()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QVERIFY(host.startWithTunnel({"AWG_STANDIN_FAULTS=noname"}));
        const QByteArray before = host.stateBytes();
        const ParsedVpnConfig config = clientConfig();
        const QJsonObject request = connectRequest(config, peerFor(config));
        auto connecting =
            std::async(std::launch::async, [&host, request] { return host.request(request); });
        QTest::qWait(1000);

        QCOMPARE(host.request(StatusRequest),
                 (QJsonObject{{"error", ""}, {"ok", true}, {"status", "connecting"}}));
        QCOMPARE(host.request(request), (QJsonObject{{"error", "connect already in progress"},
                                                     {"ok", false},
                                                     {"status", "connecting"}}));
        QCOMPARE(host.request(DisconnectRequest),
                 (QJsonObject{{"error", ""}, {"ok", true}, {"status", "disconnected"}}));
        QCOMPARE(connecting.get(), (QJsonObject{{"error", "connect cancelled by disconnect"},
                                                {"ok", false},
                                                {"status", "disconnected"}}));
        QVERIFY(!host.tunnelRunning());
        QCOMPARE(host.stateBytes(), before);
        QCOMPARE(host.request(StatusRequest),
                 (QJsonObject{{"error", ""}, {"ok", true}, {"status", "disconnected"}}));
    }

    // Two clients write in the same instant while a connect waits for its
    // interface: the disconnect cancels it, and the connect is refused rather
    // than run inside the one being cancelled.
    void disconnectAndConnectInOnePass()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QVERIFY(host.startWithTunnel({"AWG_STANDIN_FAULTS=noname"}));
        const QByteArray before = host.stateBytes();
        const QJsonObject request = connectRequest();
        auto first =
            std::async(std::launch::async, [&host, request] { return host.request(request); });
        QTest::qWait(1000);
        QLocalSocket disconnecting, connecting;
        for (QLocalSocket *socket : {&disconnecting, &connecting}) {
            socket->connectToServer(VpnServiceProtocol::socketPath());
            QVERIFY(socket->waitForConnected(1000));
        }
        // Held still while both lines arrive, the daemon finds them together.
        QTest::qWait(100);
        ::kill(pid_t(host.daemon().processId()), SIGSTOP);
        disconnecting.write(VpnServiceProtocol::encodeMessage(DisconnectRequest));
        connecting.write(VpnServiceProtocol::encodeMessage(request));
        disconnecting.flush();
        connecting.flush();
        ::kill(pid_t(host.daemon().processId()), SIGCONT);
        QJsonObject replies[2];
        for (int i = 0; i < 2; ++i)
            VpnServiceProtocol::readMessage(i == 0 ? &disconnecting : &connecting, &replies[i],
                                            nullptr, 30000);
        QCOMPARE(replies[0], reply(true, "disconnected"));
        QCOMPARE(replies[1], reply(false, "disconnected", "connect already in progress"));
        QCOMPARE(first.get(), reply(false, "disconnected", "connect cancelled by disconnect"));
        QVERIFY(!host.tunnelRunning());
        QCOMPARE(host.stateBytes(), before);
        QCOMPARE(host.request(StatusRequest), reply(true, "disconnected"));
    }

    void tunnelProgramDyingUndoesTheHost()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QVERIFY(host.startWithTunnel());
        const QByteArray before = host.stateBytes();
        QCOMPARE(host.request(connectRequest()).value("status").toString(),
                 QStringLiteral("connected"));
        const QJsonObject interfaces = host.state().value("interfaces").toObject();
        ::kill(pid_t(interfaces.value("utun2").toObject().value("owner").toInteger()), SIGKILL);
        const QJsonObject dead =
            reply(true, "error", "VPN-туннель прервался: amneziawg-go неожиданно завершился");
        QTRY_COMPARE_WITH_TIMEOUT(host.request(StatusRequest), dead, 5000);
        QCOMPARE(host.stateBytes(), before);
        QCOMPARE(host.hostsFile(), OriginalHosts + "\n");
        QVERIFY(host.daemonLog().contains("[MacVpnBackend] tunnel program exited while connected"));
        QCOMPARE(host.request(DisconnectRequest), reply(true, "disconnected"));
    }

    // A tunnel program that never stops printing must cost the service
    // neither memory nor its ability to answer.
    void talkativeTunnelProgram()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QVERIFY(host.startWithTunnel({"AWG_STANDIN_FAULTS=chatty"}));
        QCOMPARE(host.request(connectRequest()).value("status").toString(),
                 QStringLiteral("connected"));
        QTest::qWait(3000);
        QCOMPARE(host.request(StatusRequest).value("status").toString(),
                 QStringLiteral("connected"));
        QFile status(QString("/proc/%1/status").arg(host.daemon().processId()));
        QVERIFY(status.open(QIODevice::ReadOnly));
        const QByteArray text = status.readAll();
        const qsizetype at = text.indexOf("VmRSS:");
        const qint64 residentKiB = text.mid(at + 6, text.indexOf('\n', at) - at - 6)
                                       .trimmed()
                                       .split(' ')
                                       .value(0)
                                       .toLongLong();
        // Left unread, the output grew the service by gigabytes in seconds.
#ifdef __SANITIZE_ADDRESS__
        const qint64 boundKiB = 600 * 1024; // the sanitizer keeps freed memory for a while
#else
        const qint64 boundKiB = 100 * 1024;
#endif
        QVERIFY2(residentKiB > 0 && residentKiB < boundKiB,
                 qPrintable(QString::number(residentKiB)));
        QVERIFY(host.daemonLog().size() < 2 * 1024 * 1024);
    }

    // Routes that were there before the connect are someone else's: a
    // failed add leaves them to their owner, and so does the disconnect.
    void leavesOtherRoutesAlone_data()
    {
        QTest::addColumn<QJsonObject>("route");
        QTest::addColumn<QString>("status");
        QTest::newRow("another VPN's IPv6 half") << QJsonObject{{"family", "inet6"},
                                                                {"destination", "::/1"},
                                                                {"type", "-net"},
                                                                {"gateway", "utun1"},
                                                                {"interface", "utun1"}}
                                                 << "connected";
        QTest::newRow("a static route to the endpoint")
            << QJsonObject{{"family", "inet"},
                           {"destination", "203.0.113.5"},
                           {"type", "-host"},
                           {"gateway", "192.168.1.254"},
                           {"interface", "en0"}}
            << "error";
    }

    void leavesOtherRoutesAlone()
    {
        REQUIRE_SANDBOX();
        QFETCH(QJsonObject, route);
        QFETCH(QString, status);
        SystemHost host;
        QJsonObject state = host.state();
        QJsonArray routes = state.value("routes").toArray();
        routes.append(route);
        state.insert("routes", routes);
        host.writeState(state);
        QVERIFY(host.startWithTunnel());
        const QByteArray before = host.stateBytes();
        QCOMPARE(host.request(connectRequest()).value("status").toString(), status);
        host.request(DisconnectRequest);
        QCOMPARE(host.stateBytes(), before);
    }

    void keepsSecretsOutOfTheLog()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QVERIFY(host.startWithTunnel());
        ParsedVpnConfig config = clientConfig();
        config.rawConfig = awgDocument(config.lastConfig);
        config.lastConfigRaw =
            QString::fromUtf8(QJsonDocument(config.lastConfig).toJson(QJsonDocument::Compact));
        const QJsonObject peer = peerFor(config);
        QCOMPARE(host.request(connectRequest(config, peer)).value("ok").toBool(), true);
        host.request(StatusRequest);
        host.request(DisconnectRequest);
        QCOMPARE(host.stopDaemon(), 0);

        const QString log = host.daemonLog();
        QVERIFY(log.contains(
            "[MacVpnBackend] uapi set config command =\nset=1\nprivate_key=<hidden>\n"));
        for (const char *secret : {TestKeys::ClientPrivate, TestKeys::ClientPrivateHex,
                                   TestKeys::Preshared, TestKeys::PresharedHex})
            QVERIFY2(!log.contains(QLatin1String(secret)), secret);
        QVERIFY(!log.contains(peer.value("config").toString()));
    }

    void stopSignalRestoresHost()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QVERIFY(host.startWithTunnel());
        const QByteArray before = host.stateBytes();
        const ParsedVpnConfig config = clientConfig();
        QCOMPARE(connectWith(host, config).value("ok").toBool(), true);
        QCOMPARE(host.stopDaemon(SIGTERM), 0);
        QCOMPARE(host.stateBytes(), before);
        QCOMPARE(host.hostsFile(), OriginalHosts + "\n");
        QVERIFY(!host.tunnelRunning());
        QVERIFY(!QFileInfo::exists(VpnServiceProtocol::socketPath()));
    }
};

QTEST_GUILESS_MAIN(TestSystemConnect)
#include "tst_system_connect.moc"
