#include "BackendAccess.h"
#include "FakeHost.h"
#include "LogCapture.h"

#include "SimHost.h"

#include <QJsonArray>
#include <QTest>

class TestRouteHelpers : public QObject
{
    Q_OBJECT

private:
    static MacVpnBackend::SplitTunnelSettings split(int mode, const QVariantList &entries)
    {
        return {true, mode, entries};
    }
    static QVariant entry(const QString &value, const QString &ip = QString())
    {
        QVariantMap map{{"value", value}};
        if (!ip.isEmpty())
            map.insert("ip", ip);
        return map;
    }

private Q_SLOTS:
    void classifiesRoutes_data()
    {
        QTest::addColumn<QString>("route");
        QTest::addColumn<bool>("ipv4");
        QTest::addColumn<bool>("ipv6");
        QTest::addColumn<QString>("family");
        QTest::addColumn<QString>("type");
        QTest::newRow("net") << "10.0.0.0/8" << true << false << "inet"
                             << "-net";
        QTest::newRow("address with blanks") << " 10.0.0.1 " << true << false << "inet"
                                             << "-host";
        QTest::newRow("prefix 33") << "10.0.0.0/33" << false << false << "inet"
                                   << "-net";
        QTest::newRow("negative prefix") << "10.0.0.0/-1" << false << false << "inet"
                                         << "-net";
        QTest::newRow("empty prefix") << "10.0.0.0/" << false << false << "inet"
                                      << "-net";
        QTest::newRow("letter prefix") << "10.0.0.0/x" << false << false << "inet"
                                       << "-net";
        QTest::newRow("host name") << "vpn.example.net" << false << false << "inet"
                                   << "-host";
        QTest::newRow("host route with prefix") << "10.1.2.3/32" << true << false << "inet"
                                                << "-net";
        QTest::newRow("ipv6 everything") << "::/0" << false << true << "inet6"
                                         << "-net";
        QTest::newRow("ipv6 prefix 129") << "2001:db8::/129" << false << false << "inet"
                                         << "-net";
        QTest::newRow("ipv6 host") << "2001:db8::1/128" << false << true << "inet6"
                                   << "-net";
        QTest::newRow("ipv6 address") << "2001:db8::1" << false << true << "inet6"
                                      << "-host";
        QTest::newRow("empty") << "" << false << false << "inet"
                               << "-host";
    }

    void classifiesRoutes()
    {
        QFETCH(QString, route);
        QFETCH(bool, ipv4);
        QFETCH(bool, ipv6);
        QFETCH(QString, family);
        QFETCH(QString, type);
        FakeHost host;
        const MacVpnBackend backend(host.environment());
        QCOMPARE(backend.isIpv4Route(route), ipv4);
        QCOMPARE(backend.isIpv6Route(route), ipv6);
        QCOMPARE(backend.routeFamily(route), family);
        QCOMPARE(backend.routeType(route), type);
    }

    void readsDefaultGateway()
    {
        FakeHost host;
        const MacVpnBackend backend(host.environment());
        QCOMPARE(backend.defaultGateway(), QStringLiteral("192.168.1.1"));
        QCOMPARE(host.calls("route"), (QList<QStringList>{{"-n", "get", "default"}}));

        // Everything after the first colon, a scoped IPv6 gateway included.
        QJsonObject state = host.state();
        QJsonArray routes = state.value("routes").toArray();
        QJsonObject route = routes.at(0).toObject();
        route.insert("gateway", "fe80::1%en0");
        routes.replace(0, route);
        state.insert("routes", routes);
        SimHost::save(host.stateDir(), state);
        QCOMPARE(backend.defaultGateway(), QStringLiteral("fe80::1%en0"));

        host.setToolFaults({"garble:route -n get default"});
        QCOMPARE(backend.defaultGateway(), QString());
        host.setToolFaults({"fail:route -n get default"});
        QCOMPARE(backend.defaultGateway(), QString());
    }

    void normalisesSplitSettings()
    {
        FakeHost host;
        const MacVpnBackend backend(host.environment());
        const QVariantList entries{entry("10.0.0.0/8")};

        auto settings = backend.splitTunnelFromPeer({});
        QVERIFY(!settings.enabled);
        QCOMPARE(settings.mode, 0);
        QVERIFY(settings.entries.isEmpty());

        const auto read = [&](const QVariantMap &value) {
            return backend.splitTunnelFromPeer({{"splitTunnel", value}});
        };
        settings = read({{"enabled", true}, {"mode", 3}, {"entries", entries}});
        QVERIFY(!settings.enabled);
        QCOMPARE(settings.mode, 0);
        QCOMPARE(settings.entries, entries);

        settings = read({{"enabled", true}, {"entries", entries}});
        QVERIFY(!settings.enabled);
        QCOMPARE(settings.mode, 0);

        settings = read({{"enabled", false}, {"mode", 2}});
        QVERIFY(!settings.enabled);
        QCOMPARE(settings.mode, 2);

        settings = read({{"enabled", true}, {"mode", "1"}});
        QVERIFY(settings.enabled);
        QCOMPARE(settings.mode, 1);

        // As it arrives from a request: JSON numbers become doubles.
        settings = backend.splitTunnelFromPeer(
            QJsonObject{{"splitTunnel", QJsonObject{{"enabled", true}, {"mode", 2}}}}
                .toVariantMap());
        QVERIFY(settings.enabled);
        QCOMPARE(settings.mode, 2);
    }

    void leavesLiteralsUnresolved()
    {
        FakeHost host;
        MacVpnBackend backend(host.environment());
        MacVpnBackendAccess::setSplitTunnel(
            backend, split(1, {entry("10.0.0.0/8"), entry(" 1.2.3.4 "), entry("2001:db8::/32")}));
        QCOMPARE(backend.splitTunnelRoutes(),
                 (QStringList{"10.0.0.0/8", "1.2.3.4", "2001:db8::/32"}));
        QVERIFY(host.lookups().isEmpty());
    }

    void resolvesNamesInResolverOrder()
    {
        FakeHost host;
        host.resolve("dual.example", {"2001:db8::7", "192.0.2.7"});
        MacVpnBackend backend(host.environment());
        MacVpnBackendAccess::setSplitTunnel(backend, split(1, {entry("dual.example")}));
        QCOMPARE(backend.splitTunnelRoutes(), (QStringList{"2001:db8::7", "192.0.2.7"}));
        MacVpnBackendAccess::setSplitTunnel(
            backend,
            split(2, {entry("dual.example"), entry("2001:db8::/32"), entry("10.0.0.0/8")}));
        QCOMPARE(backend.splitTunnelRoutes(), (QStringList{"192.0.2.7", "10.0.0.0/8"}));
    }

    void fallsBackToStoredAddress()
    {
        FakeHost host;
        LogCapture log;
        MacVpnBackend backend(host.environment());
        MacVpnBackendAccess::setSplitTunnel(backend,
                                               split(1, {entry("gone.example", " 198.51.100.7 ")}));
        QCOMPARE(backend.splitTunnelRoutes(), QStringList{"198.51.100.7"});
        QVERIFY(!log.contains("not resolved"));

        MacVpnBackendAccess::setSplitTunnel(
            backend, split(1, {entry("gone.example"), entry("also.gone", "not-an-address")}));
        QCOMPARE(backend.splitTunnelRoutes(), QStringList());
        QVERIFY(log.contains("[MacVpnBackend] split tunnel host not resolved \"gone.example\""));
        QVERIFY(log.contains("[MacVpnBackend] split tunnel host not resolved \"also.gone\""));
    }

    void dropsDuplicatesAndNonMaps()
    {
        FakeHost host;
        host.resolve("a.example", {"192.0.2.1", "192.0.2.1", "192.0.2.2"});
        LogCapture log;
        MacVpnBackend backend(host.environment());
        MacVpnBackendAccess::setSplitTunnel(
            backend, split(1, {entry("192.0.2.2"), entry("a.example"), QVariant("192.0.2.9"),
                               entry("192.0.2.1/32")}));
        QCOMPARE(backend.splitTunnelRoutes(),
                 (QStringList{"192.0.2.2", "192.0.2.1", "192.0.2.1/32"}));
        QVERIFY(log.contains("[MacVpnBackend] split tunnel host not resolved \"\""));

        MacVpnBackendAccess::setSplitTunnel(backend, split(1, {}));
        QCOMPARE(backend.splitTunnelRoutes(), QStringList());
    }
};

QTEST_GUILESS_MAIN(TestRouteHelpers)
#include "tst_route_helpers.moc"
