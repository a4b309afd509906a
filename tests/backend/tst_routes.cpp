#include "BackendAccess.h"
#include "ClientConfig.h"
#include "FakeHost.h"
#include "LogCapture.h"

#include "SimHost.h"

#include <QJsonArray>
#include <QTest>

namespace {

using Calls = QList<QStringList>;
using Routes = QList<MacVpnBackend::RouteEntry>;

const QStringList GetDefault{"-n", "get", "default"};
const QStringList ServerRoute{"-n", "add", "-host", "203.0.113.5", "192.168.1.1"};
const QStringList BypassRoute{"-n", "add", "-host", "198.51.100.10", "192.168.1.1"};

QStringList tunnelRoute(const QString &destination, bool ipv6 = false)
{
    return ipv6 ? QStringList{"-n", "add", "-inet6", "-net", destination, "-interface", "utun1"}
                : QStringList{"-n", "add", "-net", destination, "-interface", "utun1"};
}

const Routes FullTunnel{{"inet", "0.0.0.0/1", "-net", "utun1"},
                        {"inet", "128.0.0.0/1", "-net", "utun1"},
                        {"inet6", "::/1", "-net", "utun1"},
                        {"inet6", "8000::/1", "-net", "utun1"}};

} // namespace

class TestRoutes : public QObject
{
    Q_OBJECT

private:
    // Routes go through utun1, an interface the simulated host already has.
    static void prepare(FakeHost &, MacVpnBackend &backend)
    {
        MacVpnBackendAccess::setTunnelInterface(backend, "utun1");
    }
    static MacVpnBackend::SplitTunnelSettings split(int mode, const QStringList &values)
    {
        QVariantList entries;
        for (const QString &value : values)
            entries.append(QVariantMap{{"value", value}});
        return {true, mode, entries};
    }
    static ParsedVpnConfig allowing(const QJsonArray &ranges)
    {
        return clientConfig({{"allowed_ips", ranges}});
    }

private Q_SLOTS:
    void installsFullTunnelAndRemovesItAgain()
    {
        FakeHost host;
        host.resolve("tarvex.com", {"198.51.100.10"});
        const QByteArray before = host.stateBytes();
        MacVpnBackend backend(host.environment());
        prepare(host, backend);

        QVERIFY(backend.configureRoutes(clientConfig()));
        QCOMPARE(host.calls("route"),
                 (Calls{GetDefault, ServerRoute, BypassRoute, tunnelRoute("0.0.0.0/1"),
                        tunnelRoute("128.0.0.0/1"), tunnelRoute("::/1", true),
                        tunnelRoute("8000::/1", true)}));
        QCOMPARE(MacVpnBackendAccess::routes(backend), FullTunnel);
        QCOMPARE(MacVpnBackendAccess::serverHost(backend), QStringLiteral("203.0.113.5"));
        QCOMPARE(MacVpnBackendAccess::bypassHosts(backend), QStringList{"198.51.100.10"});

        host.clearCalls();
        backend.removeRoutes();
        QCOMPARE(host.calls("route"), (Calls{{"-n", "delete", "-host", "198.51.100.10"},
                                             {"-n", "delete", "-inet6", "-net", "8000::/1"},
                                             {"-n", "delete", "-inet6", "-net", "::/1"},
                                             {"-n", "delete", "-net", "128.0.0.0/1"},
                                             {"-n", "delete", "-net", "0.0.0.0/1"},
                                             {"-n", "delete", "-host", "203.0.113.5"}}));
        QVERIFY(MacVpnBackendAccess::routes(backend).isEmpty());
        QVERIFY(MacVpnBackendAccess::bypassHosts(backend).isEmpty());
        QCOMPARE(MacVpnBackendAccess::serverHost(backend), QStringLiteral("203.0.113.5"));
        QCOMPARE(host.stateBytes(), before);
    }

    void routesAllowedRanges()
    {
        FakeHost host;
        MacVpnBackend backend(host.environment());
        prepare(host, backend);
        // With everything allowed, other IPv4 ranges are not routed separately.
        QVERIFY(backend.configureRoutes(allowing({"0.0.0.0/0", "10.0.0.0/8"})));
        QCOMPARE(MacVpnBackendAccess::routes(backend),
                 (Routes{{"inet", "0.0.0.0/1", "-net", "utun1"},
                         {"inet", "128.0.0.0/1", "-net", "utun1"}}));
        backend.removeRoutes();

        // Entries that do not start with a digit are skipped, IPv6 ranges other than ::/0 too.
        host.clearCalls();
        QVERIFY(backend.configureRoutes(
            allowing({"10.0.0.0/8", "fd00::/8", "192.168.5.7", "vpn.example"})));
        QCOMPARE(host.calls("route").mid(2),
                 (Calls{tunnelRoute("10.0.0.0/8"), tunnelRoute("192.168.5.7")}));
        QCOMPARE(MacVpnBackendAccess::routes(backend),
                 (Routes{{"inet", "10.0.0.0/8", "-net", "utun1"},
                         {"inet", "192.168.5.7", "-net", "utun1"}}));
    }

    void routesOnlySelectedDestinations()
    {
        FakeHost host;
        MacVpnBackend backend(host.environment());
        prepare(host, backend);
        MacVpnBackendAccess::setSplitTunnel(backend, split(1, {"10.1.2.3", "2001:db8::/32"}));
        QVERIFY(backend.configureRoutes(clientConfig()));
        QCOMPARE(host.calls("route").mid(2),
                 (Calls{{"-n", "add", "-host", "10.1.2.3", "-interface", "utun1"},
                        {"-n", "add", "-inet6", "-net", "2001:db8::/32", "-interface", "utun1"}}));
        QCOMPARE(MacVpnBackendAccess::routes(backend),
                 (Routes{{"inet", "10.1.2.3", "-host", "utun1"},
                         {"inet6", "2001:db8::/32", "-net", "utun1"}}));
    }

    void onlySelectedWithNothingResolved()
    {
        FakeHost host;
        MacVpnBackend backend(host.environment());
        prepare(host, backend);
        MacVpnBackendAccess::setSplitTunnel(backend, split(1, {"nowhere.example"}));
        QVERIFY(backend.configureRoutes(clientConfig()));
        QCOMPARE(host.calls("route"), (Calls{GetDefault, ServerRoute}));
        QVERIFY(MacVpnBackendAccess::routes(backend).isEmpty());
    }

    void routesExclusionsThroughGateway()
    {
        FakeHost host;
        LogCapture log;
        MacVpnBackend backend(host.environment());
        prepare(host, backend);
        MacVpnBackendAccess::setSplitTunnel(backend, split(2, {"203.0.113.0/24", "2001:db8::/32"}));
        QVERIFY(backend.configureRoutes(clientConfig()));
        QCOMPARE(host.calls("route").last(),
                 (QStringList{"-n", "add", "-net", "203.0.113.0/24", "192.168.1.1"}));
        QCOMPARE(MacVpnBackendAccess::routes(backend),
                 (FullTunnel + Routes{{"inet", "203.0.113.0/24", "-net", "192.168.1.1"}}));
        QVERIFY(
            log.contains("splitEnabled= true splitMode= 2 splitRoutes= QList(\"203.0.113.0/24\")"));

        // The exclusion is the first thing removal deletes.
        host.clearCalls();
        backend.removeRoutes();
        QCOMPARE(host.calls("route").first(),
                 (QStringList{"-n", "delete", "-net", "203.0.113.0/24"}));
    }

    void skipsGatewayRoutesWithoutGateway()
    {
        FakeHost host;
        QJsonObject state = host.state();
        QJsonArray routes = state.value("routes").toArray();
        routes.removeAt(0);
        state.insert("routes", routes);
        SimHost::save(host.stateDir(), state);
        LogCapture log;
        MacVpnBackend backend(host.environment());
        prepare(host, backend);
        MacVpnBackendAccess::setSplitTunnel(backend, split(2, {"203.0.113.0/24"}));
        QVERIFY(backend.configureRoutes(clientConfig()));
        QCOMPARE(host.calls("route"),
                 (Calls{GetDefault, tunnelRoute("0.0.0.0/1"), tunnelRoute("128.0.0.0/1"),
                        tunnelRoute("::/1", true), tunnelRoute("8000::/1", true)}));
        QVERIFY(log.contains("[MacVpnBackend] control-plane bypass skipped: empty gateway"));
    }

    void ignoresModeOutsideSplitModes()
    {
        FakeHost host;
        LogCapture log;
        MacVpnBackend backend(host.environment());
        prepare(host, backend);
        MacVpnBackendAccess::setSplitTunnel(backend, split(5, {"resolve.me"}));
        QVERIFY(backend.configureRoutes(clientConfig()));
        QVERIFY(log.contains("splitEnabled= false splitMode= 5"));
        QCOMPARE(host.lookups(), QStringList{"tarvex.com"}); // the bypass only
        QCOMPARE(MacVpnBackendAccess::routes(backend), FullTunnel);
    }

    void reportsFatalFailures_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QString>("message");
        QTest::addColumn<int>("recorded");
        QTest::newRow("server route")
            << 0 << "route -n add -host 203.0.113.5"
            << "Не удалось добавить маршрут до сервера: route: simulated failure" << 0;
        QTest::newRow("second IPv4 half")
            << 0 << "route -n add -net 128.0.0.0/1"
            << "Не удалось добавить IPv4 маршрут: route: simulated failure" << 1;
        QTest::newRow("split route")
            << 1 << "route -n add -host 10.1.2.3"
            << "Не удалось добавить маршрут раздельного туннелирования: route: simulated failure"
            << 0;
        QTest::newRow("exclusion")
            << 2 << "route -n add -host 10.1.2.3"
            << "Не удалось добавить исключение раздельного туннелирования: route: simulated failure"
            << 4;
    }

    void reportsFatalFailures()
    {
        QFETCH(int, mode);
        QFETCH(QString, fault);
        QFETCH(QString, message);
        QFETCH(int, recorded);
        FakeHost host;
        host.setToolFaults({"fail:" + fault});
        MacVpnBackend backend(host.environment());
        prepare(host, backend);
        if (mode != 0)
            MacVpnBackendAccess::setSplitTunnel(backend, split(mode, {"10.1.2.3"}));
        QVERIFY(!backend.configureRoutes(clientConfig()));
        QCOMPARE(backend.lastError(), message);
        QCOMPARE(backend.status(), PlatformVpnBackend::Error);
        QCOMPARE(MacVpnBackendAccess::routes(backend).size(), recorded);
        // Nothing is attempted after the failing route.
        QVERIFY(host.calls("route").last().join(' ').startsWith(fault.mid(6)));
    }
};

QTEST_GUILESS_MAIN(TestRoutes)
#include "tst_routes.moc"
