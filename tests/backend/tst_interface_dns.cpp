#include "BackendAccess.h"
#include "ClientConfig.h"
#include "FakeHost.h"
#include "LogCapture.h"

#include <QJsonArray>
#include <QTest>

namespace {

using Calls = QList<QStringList>;

const QStringList Ipv6Alias{"utun1", "inet6", "fd58:baa6:dead::1", "prefixlen", "128", "alias"};

QStringList ipv4(const QString &address, const QString &mtu)
{
    return {"utun1", "inet", address, address, "netmask", "255.255.255.255", "mtu", mtu, "up"};
}

} // namespace

class TestInterfaceAndDns : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void addressesInterface()
    {
        FakeHost host;
        LogCapture log;
        MacVpnBackend backend(host.environment());
        MacVpnBackendAccess::setTunnelInterface(backend, "utun1");
        QVERIFY(backend.configureInterface(clientConfig()));
        QCOMPARE(host.calls("ifconfig"), (Calls{ipv4("10.8.1.2", "1420"), Ipv6Alias}));
        const QJsonObject utun1 =
            host.state().value("interfaces").toObject().value("utun1").toObject();
        QCOMPARE(utun1.value("inet").toString(), QStringLiteral("10.8.1.2"));
        QCOMPARE(utun1.value("mtu").toInt(), 1420);
        QVERIFY(log.contains(
            "[MacVpnBackend] configureInterface interface= \"utun1\" ip= \"10.8.1.2\""));
        QVERIFY(log.contains("[MacVpnBackend] interface lastConfig = {"));
    }

    void takesMtuOnlyFromString()
    {
        FakeHost host;
        MacVpnBackend backend(host.environment());
        MacVpnBackendAccess::setTunnelInterface(backend, "utun1");
        QVERIFY(backend.configureInterface(clientConfig({{"mtu", 1420}})));
        QCOMPARE(host.calls("ifconfig").first(), ipv4("10.8.1.2", "1280"));
    }

    void needsClientAddress()
    {
        FakeHost host;
        MacVpnBackend backend(host.environment());
        MacVpnBackendAccess::setTunnelInterface(backend, "utun1");
        QVERIFY(!backend.configureInterface(clientConfig({{"client_ip", QJsonValue::Null}})));
        QCOMPARE(backend.lastError(), QStringLiteral("В конфигурации нет client_ip"));
        QVERIFY(host.calls().isEmpty());
    }

    void reportsIpv4FailureWithToolMessage()
    {
        FakeHost host;
        MacVpnBackend backend(host.environment());
        MacVpnBackendAccess::setTunnelInterface(backend, "utun9"); // no such interface
        QVERIFY(!backend.configureInterface(clientConfig()));
        QCOMPARE(
            backend.lastError(),
            QStringLiteral(
                "Не удалось настроить IPv4 интерфейса: ifconfig: interface utun9 does not exist"));
        QCOMPARE(host.calls("ifconfig").size(), 1);
    }

    void ignoresIpv6Failure()
    {
        FakeHost host;
        host.setToolFaults({"fail:ifconfig utun1 inet6"});
        MacVpnBackend backend(host.environment());
        MacVpnBackendAccess::setTunnelInterface(backend, "utun1");
        QVERIFY(backend.configureInterface(clientConfig()));
        QCOMPARE(backend.status(), PlatformVpnBackend::Disconnected);
    }

    void setsAndRestoresDnsOfEnabledServices()
    {
        FakeHost host;
        const QByteArray before = host.stateBytes();
        LogCapture log;
        MacVpnBackend backend(host.environment());
        ParsedVpnConfig config = clientConfig();
        config.dns2 = QStringLiteral("   ");
        QVERIFY(backend.configureDns(config));
        QCOMPARE(host.calls("networksetup"),
                 (Calls{{"-listallnetworkservices"},
                        {"-getdnsservers", "Wi-Fi"},
                        {"-setdnsservers", "Wi-Fi", "1.1.1.1"},
                        {"-getdnsservers", "Ethernet"},
                        {"-setdnsservers", "Ethernet", "1.1.1.1"},
                        {"-getdnsservers", "Thunderbolt Bridge"},
                        {"-setdnsservers", "Thunderbolt Bridge", "1.1.1.1"}}));
        QCOMPARE(MacVpnBackendAccess::savedDns(backend),
                 (QMap<QString, QStringList>{{"Ethernet", {}},
                                             {"Thunderbolt Bridge", {"9.9.9.9", "149.112.112.112"}},
                                             {"Wi-Fi", {"192.168.1.1"}}}));
        QVERIFY(log.contains("[MacVpnBackend] current DNS for Ethernet = There aren't any DNS "
                             "Servers set on Ethernet."));

        host.clearCalls();
        backend.restoreDns();
        QCOMPARE(host.calls("networksetup"),
                 (Calls{{"-setdnsservers", "Ethernet", "Empty"},
                        {"-setdnsservers", "Thunderbolt Bridge", "9.9.9.9", "149.112.112.112"},
                        {"-setdnsservers", "Wi-Fi", "192.168.1.1"}}));
        QVERIFY(MacVpnBackendAccess::savedDns(backend).isEmpty());
        QCOMPARE(host.stateBytes(), before);

        host.clearCalls();
        backend.restoreDns();
        QVERIFY(host.calls().isEmpty());
    }

    void leavesDnsAloneWithoutServers()
    {
        FakeHost host;
        MacVpnBackend backend(host.environment());
        ParsedVpnConfig config = clientConfig();
        config.dns1 = QStringLiteral(" ");
        config.dns2.clear();
        QVERIFY(backend.configureDns(config));
        QVERIFY(host.calls().isEmpty());
        QVERIFY(MacVpnBackendAccess::savedDns(backend).isEmpty());
    }

    void changesNothingWhenListingFails()
    {
        FakeHost host;
        host.setToolFaults({"fail:networksetup -listallnetworkservices"});
        MacVpnBackend backend(host.environment());
        QVERIFY(backend.configureDns(clientConfig()));
        QCOMPARE(host.calls("networksetup").size(), 1);
        QVERIFY(MacVpnBackendAccess::savedDns(backend).isEmpty());
    }

    void leavesServiceAloneWhenItsServersCannotBeRead()
    {
        FakeHost host;
        host.setToolFaults({"fail:networksetup -getdnsservers Wi-Fi"});
        const QByteArray before = host.stateBytes();
        MacVpnBackend backend(host.environment());
        QVERIFY(backend.configureDns(clientConfig()));
        QVERIFY(!MacVpnBackendAccess::savedDns(backend).contains("Wi-Fi"));
        QVERIFY(!host.calls("networksetup")
                     .contains(QStringList{"-setdnsservers", "Wi-Fi", "1.1.1.1", "1.0.0.1"}));
        QCOMPARE(MacVpnBackendAccess::savedDns(backend).size(), 2);
        backend.restoreDns();
        QCOMPARE(host.stateBytes(), before);
    }

    void flushesBothCaches()
    {
        FakeHost host;
        host.setToolFaults({"fail:dscacheutil"});
        const MacVpnBackend backend(host.environment());
        backend.flushDnsCache();
        QCOMPARE(host.calls("dscacheutil"), (Calls{{"-flushcache"}}));
        QCOMPARE(host.calls("killall"), (Calls{{"-HUP", "mDNSResponder"}}));
        QCOMPARE(host.counter("mDNSResponderHUP"), 1);
    }
};

QTEST_GUILESS_MAIN(TestInterfaceAndDns)
#include "tst_interface_dns.moc"
