// What a connection wants of the host, as a value: derived from the
// configuration, the peer map and what the names stood for.
#include "ClientConfig.h"

#include "backend/plan/BypassFilter.h"
#include "backend/plan/ConnectionPlan.h"
#include "backend/plan/PrefixSet.h"

#include <QHostInfo>
#include <QJsonArray>
#include <QTest>

class TestPlan : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // The routes a connection wants, into the tunnel ("tunnel"), around it
    // ("around"), and those it may go without ("optional"); and where DNS goes.
    void plansTheHost_data()
    {
        QTest::addColumn<QJsonObject>("overrides");
        QTest::addColumn<int>("mode");
        QTest::addColumn<QStringList>("entries");
        QTest::addColumn<QStringList>("routes");
        QTest::addColumn<bool>("dnsForAll");
        const QStringList halves = {"0.0.0.0/1 tunnel", "128.0.0.0/1 tunnel"};
        const QStringList halves6 = {"::/1 tunnel optional", "8000::/1 tunnel optional"};
        QTest::newRow("full, both families") << QJsonObject() << 0 << QStringList()
                                             << halves + halves6 << true;
        QTest::newRow("ranges by their own family")
            << QJsonObject{{"allowed_ips", QJsonArray{"10.0.0.0/8", "fd00::/8"}}} << 0
            << QStringList() << QStringList{"10.0.0.0/8 tunnel", "fd00::/8 tunnel"} << true;
        QTest::newRow("exclusions: IPv4, and a name's public addresses")
            << QJsonObject() << 2
            << QStringList{"192.0.2.0/24", "2001:db8::/32", "public.example", "private.example"}
            << halves + halves6 + QStringList{"192.0.2.0/24 around", "198.51.100.7 around"} << true;
        QTest::newRow("only selected: no DNS for all, a name inside a range")
            << QJsonObject() << 1 << QStringList{"10.0.0.0/8", "private.example", "gone.example"}
            << QStringList{"10.0.0.0/8 tunnel"} << false;
        QTest::newRow("allowed ranges merged")
            << QJsonObject{{"allowed_ips", QJsonArray{"10.0.0.0/9", "10.128.0.0/9", "10.1.0.0/16"}}}
            << 0 << QStringList() << QStringList{"10.0.0.0/8 tunnel"} << true;
    }

    // As few routes as cover the same addresses, in the order first asked
    // for; what is not an address passes untouched.
    void mergesPrefixes_data()
    {
        QTest::addColumn<QStringList>("given");
        QTest::addColumn<QStringList>("merged");
        QTest::newRow("halves, quarters, a host inside")
            << QStringList{"192.0.2.128/25", "198.51.100.1", "192.0.2.0/26", "192.0.2.64/26",
                           "192.0.2.7"}
            << QStringList{"192.0.2.0/24", "198.51.100.1"};
        QTest::newRow("neighbours that are not halves stay apart")
            << QStringList{"192.0.2.64/26", "192.0.2.128/26"}
            << QStringList{"192.0.2.64/26", "192.0.2.128/26"};
        QTest::newRow("host addresses, a network by its first address")
            << QStringList{"203.0.113.4/31", "203.0.113.5", "10.1.2.3/8", "10.9.0.0/16"}
            << QStringList{"203.0.113.4/31", "10.0.0.0/8"};
        QTest::newRow("families apart, IPv6 halves join")
            << QStringList{"2001:db8::/33", "0.0.0.0/1", "2001:db8:8000::/33", "fe80::/64"}
            << QStringList{"2001:db8::/32", "0.0.0.0/1", "fe80::/64"};
        QTest::newRow("the whole space, and whatever else")
            << QStringList{"10.0.0.0/8", "0.0.0.0/0", "name.example", "128.0.0.0/1"}
            << QStringList{"0.0.0.0/0", "name.example"};
    }

    void mergesPrefixes()
    {
        QFETCH(QStringList, given);
        QFETCH(QStringList, merged);
        QCOMPARE(PrefixSet::merged(given), merged);
    }

    void plansTheHost()
    {
        QFETCH(QJsonObject, overrides);
        QFETCH(int, mode);
        QFETCH(QStringList, entries);
        QFETCH(QStringList, routes);
        QFETCH(bool, dnsForAll);
        QVariantList split;
        for (const QString &entry : entries)
            split.append(QVariantMap{{"value", entry}});
        const auto lookup = [](const QString &name) {
            QHostInfo info;
            info.setHostName(name);
            const QMap<QString, QString> known = {{"tarvex.com", "198.51.100.10"},
                                                  {"public.example", "198.51.100.7"},
                                                  {"private.example", "10.1.2.3"}};
            if (known.contains(name))
                info.setAddresses({QHostAddress(known[name])});
            else
                info.setError(QHostInfo::HostNotFound);
            return info;
        };
        const ConnectionPlan plan = ConnectionPlan::of(
            clientConfig(overrides), {mode != 0, mode, split}, "tarvex.com", lookup);
        QStringList planned;
        for (const ConnectionPlan::Route &route : plan.routes)
            planned.append(route.destination + (route.intoTunnel ? " tunnel" : " around") +
                           (route.failure ? "" : " optional"));
        QCOMPARE(planned, routes);
        QCOMPARE(plan.dnsForAll, dnsForAll);
        QCOMPARE(plan.server, "203.0.113.5");
        QCOMPARE(plan.endpoint, "203.0.113.5:51820");
        QCOMPARE(plan.bypass, QStringList{"198.51.100.10"});
        QCOMPARE(plan.tunnelDns, (QStringList{"1.1.1.1", "1.0.0.1"}));
    }

    void derivesValues()
    {
        const auto port = [](const QJsonValue &value) {
            return PeerValues::endpointPort(clientConfig({{"port", value}}));
        };
        QCOMPARE(port(51820), 51820);
        QCOMPARE(port("51820"), 51820);
        for (const QJsonValue &bad : {QJsonValue(1.5), QJsonValue(3e9), QJsonValue("x"),
                                      QJsonValue(""), QJsonValue(QJsonValue::Null)})
            QCOMPARE(port(bad), 0);
        QCOMPARE(PeerValues::clientIpv4(clientConfig({{"client_ip", "10.0.0.2/24"}})), "10.0.0.2");
        QCOMPARE(PeerValues::clientIpv4(clientConfig({{"client_ip", "/24"}})), "");
        QCOMPARE(
            PeerValues::allowedIps(clientConfig({{"allowed_ips", QJsonArray{" 10.0.0.0/8 ", "", 5}}})),
            QStringList{"10.0.0.0/8"});
        QCOMPARE(PeerValues::allowedIps(clientConfig({{"allowed_ips", "10.0.0.0/8"}})),
                 (QStringList{"0.0.0.0/0", "::/0"}));
        QCOMPARE(PeerValues::hexKey(QString(TestKeys::Preshared) + "\n"), TestKeys::PresharedHex);
    }

    // The network's resolver never routes these around the tunnel: whole
    // ranges, not one address of each.
    void bypassRefusesWholeRanges_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<QString>("reason");
        const QStringList loopback = {"127.0.0.1", "127.0.0.2", "127.255.255.254", "::1"};
        const QStringList linkLocal = {"169.254.0.1", "169.254.255.254", "fe80::1", "febf::1"};
        const QStringList multicast = {"224.0.0.1", "239.255.255.250", "ff02::1", "ff0e::1"};
        for (const auto &[addresses, reason] : {std::pair{loopback, "loopback"},
                                                {linkLocal, "link-local"},
                                                {multicast, "multicast"}}) {
            for (const QString &address : addresses)
                QTest::newRow(qPrintable(address)) << address << reason;
        }
        QTest::newRow("broadcast") << "255.255.255.255"
                                   << "broadcast";
        QTest::newRow("0.0.0.0") << "0.0.0.0"
                                 << "unspecified";
        QTest::newRow("::") << "::"
                            << "unspecified";
        QTest::newRow("the tunnel's DNS") << "1.1.1.1"
                                          << "the tunnel's own";
        QTest::newRow("the tunnel's address") << "10.8.1.2"
                                              << "the tunnel's own";
        QTest::newRow("private, for a public name") << "10.1.2.3"
                                                    << "private, for a name that is not local";
        QTest::newRow("a public address") << "198.51.100.10"
                                          << "";
    }

    void bypassRefusesWholeRanges()
    {
        QFETCH(QString, address);
        QFETCH(QString, reason);
        const BypassFilter::Verdict verdict =
            BypassFilter::filter("tarvex.com", {QHostAddress(address)},
                                 {QHostAddress("1.1.1.1"), QHostAddress("10.8.1.2")});
        QCOMPARE(verdict.dropped,
                 reason.isEmpty() ? QStringList() : QStringList{address + ": " + reason});
    }
};

QTEST_GUILESS_MAIN(TestPlan)
#include "tst_plan.moc"
