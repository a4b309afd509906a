#include "ClientConfig.h"
#include "FakeHost.h"

#include "backend/MacVpnBackend.h"

#include <QTest>

class TestSetConfig : public QObject
{
    Q_OBJECT

private:
    FakeHost host;
    static QJsonObject remove(const char *key) { return {{QLatin1String(key), QJsonValue::Null}}; }

private Q_SLOTS:
    void buildsTheWorkedExample()
    {
        const MacVpnBackend backend(host.environment());
        ParsedVpnConfig config =
            clientConfig({{QStringLiteral("persistent_keep_alive"), QJsonValue::Null},
                          {QStringLiteral("mtu"), QJsonValue::Null}});
        const QString expected = QStringLiteral("set=1\n"
                                                "private_key=%1\n"
                                                "replace_peers=true\n"
                                                "jc=4\n"
                                                "jmin=40\n"
                                                "jmax=70\n"
                                                "public_key=%2\n"
                                                "preshared_key=%3\n"
                                                "endpoint=203.0.113.5:51820\n"
                                                "replace_allowed_ips=true\n"
                                                "persistent_keepalive_interval=60\n"
                                                "allowed_ip=0.0.0.0/0\n"
                                                "allowed_ip=::/0\n")
                                     .arg(QLatin1String(TestKeys::ClientPrivateHex),
                                          QLatin1String(TestKeys::ServerPublicHex),
                                          QLatin1String(TestKeys::PresharedHex));
        QCOMPARE(backend.uapiSetConfig(config), expected);
    }

    void writesEveryAmneziaParameterInOrder()
    {
        const MacVpnBackend backend(host.environment());
        QJsonObject parameters;
        const char *names[] = {"I5", "I4", "I3", "I2", "I1", "H4",   "H3",   "H2",
                               "H1", "S4", "S3", "S2", "S1", "Jmax", "Jmin", "Jc"};
        for (const char *name : names)
            parameters.insert(QLatin1String(name), QStringLiteral("v-%1").arg(QLatin1String(name)));
        parameters.insert(QStringLiteral("I1"), QStringLiteral("<b 0xf6ab> <r 10>"));
        parameters.insert(QStringLiteral("S3"), 15); // a number is not a parameter value
        parameters.insert(QStringLiteral("jc"), QStringLiteral("9")); // lower case is never read
        const QString text = backend.uapiSetConfig(clientConfig(parameters));
        const QStringList lines = text.split(QLatin1Char('\n'));
        const int start = lines.indexOf(QStringLiteral("replace_peers=true")) + 1;
        QCOMPARE(lines.mid(start, 15),
                 (QStringList{"jc=v-Jc", "jmin=v-Jmin", "jmax=v-Jmax", "s1=v-S1", "s2=v-S2",
                              "s4=v-S4", "h1=v-H1", "h2=v-H2", "h3=v-H3", "h4=v-H4",
                              "i1=<b 0xf6ab> <r 10>", "i2=v-I2", "i3=v-I3", "i4=v-I4", "i5=v-I5"}));
        QVERIFY(lines.at(start + 15).startsWith(QStringLiteral("public_key=")));
        QVERIFY(!text.contains(QStringLiteral("jc=9")));
    }

    void omitsAbsentPresharedKey()
    {
        const MacVpnBackend backend(host.environment());
        for (const QJsonValue &psk : {QJsonValue(QJsonValue::Null), QJsonValue(QString())}) {
            const QString text =
                backend.uapiSetConfig(clientConfig({{QStringLiteral("psk_key"), psk}}));
            QVERIFY(!text.contains(QStringLiteral("preshared_key")));
            for (const char *fixed :
                 {"set=1\n", "replace_peers=true\n", "replace_allowed_ips=true\n", "endpoint="})
                QVERIFY(text.contains(QLatin1String(fixed)));
        }
    }

    void keepAliveOnlyFromStrings_data()
    {
        QTest::addColumn<QJsonValue>("value");
        QTest::addColumn<QString>("line");
        QTest::newRow("number") << QJsonValue(25)
                                << QStringLiteral("persistent_keepalive_interval=60\n");
        QTest::newRow("string") << QJsonValue(QStringLiteral("25"))
                                << QStringLiteral("persistent_keepalive_interval=25\n");
        QTest::newRow("empty string")
            << QJsonValue(QString()) << QStringLiteral("persistent_keepalive_interval=\n");
    }

    void keepAliveOnlyFromStrings()
    {
        QFETCH(QJsonValue, value);
        QFETCH(QString, line);
        const MacVpnBackend backend(host.environment());
        QVERIFY(
            backend.uapiSetConfig(clientConfig({{QStringLiteral("persistent_keep_alive"), value}}))
                .contains(line));
    }

    void defaultsAndHostFallback()
    {
        const MacVpnBackend backend(host.environment());
        ParsedVpnConfig config =
            clientConfig({{QStringLiteral("allowed_ips"), QJsonValue::Null},
                          {QStringLiteral("hostName"), QStringLiteral("vpn.example.net")}});
        config.hostName.clear();
        const QString text = backend.uapiSetConfig(config);
        QVERIFY(text.endsWith(QStringLiteral("allowed_ip=0.0.0.0/0\nallowed_ip=::/0\n")));
        QVERIFY(text.contains(QStringLiteral("\nendpoint=vpn.example.net:51820\n")));
        QVERIFY(!text.contains(QStringLiteral("\n\n")));

        // Nothing is validated: empty keys and a missing host still give lines.
        const QString bare = backend.uapiSetConfig(ParsedVpnConfig());
        QVERIFY(bare.startsWith(
            QStringLiteral("set=1\nprivate_key=\nreplace_peers=true\npublic_key=\nendpoint=:0\n")));
    }

    void derivesEndpointPort_data()
    {
        QTest::addColumn<QJsonValue>("port");
        QTest::addColumn<int>("expected");
        QTest::newRow("number") << QJsonValue(51820) << 51820;
        QTest::newRow("string") << QJsonValue(QStringLiteral("51820")) << 51820;
        QTest::newRow("not numeric") << QJsonValue(QStringLiteral("port")) << 0;
        QTest::newRow("empty") << QJsonValue(QString()) << 0;
        QTest::newRow("missing") << QJsonValue(QJsonValue::Undefined) << 0;
        QTest::newRow("fraction") << QJsonValue(1.5) << 0;
        QTest::newRow("too large") << QJsonValue(3000000000.0) << 0;
        QTest::newRow("beyond 65535") << QJsonValue(70000) << 70000;
    }

    void derivesEndpointPort()
    {
        QFETCH(QJsonValue, port);
        QFETCH(int, expected);
        const MacVpnBackend backend(host.environment());
        ParsedVpnConfig config;
        if (!port.isUndefined())
            config.lastConfig.insert(QStringLiteral("port"), port);
        QCOMPARE(backend.endpointPort(config), expected);
    }

    void derivesAddressesAndKeys()
    {
        const MacVpnBackend backend(host.environment());
        ParsedVpnConfig config;
        config.lastConfig = {{QStringLiteral("client_ip"), QStringLiteral("10.0.0.2/24")}};
        QCOMPARE(backend.clientIpv4(config), QStringLiteral("10.0.0.2"));
        config.lastConfig = {{QStringLiteral("client_ip"), QStringLiteral("/24")}};
        QCOMPARE(backend.clientIpv4(config), QString());
        config.lastConfig = {{QStringLiteral("client_ip"), QStringLiteral("10.8.1.2")}};
        QCOMPARE(backend.clientIpv4(config), QStringLiteral("10.8.1.2"));

        config.lastConfig = {{QStringLiteral("allowed_ips"),
                              QJsonArray{QStringLiteral("  10.0.0.0/8 "), QString(), 5}}};
        QCOMPARE(backend.allowedIps(config), QStringList{QStringLiteral("10.0.0.0/8")});
        const QStringList everything{QStringLiteral("0.0.0.0/0"), QStringLiteral("::/0")};
        for (const QJsonValue &value :
             {QJsonValue(QJsonArray()), QJsonValue(QStringLiteral("10.0.0.0/8")),
              QJsonValue(QJsonValue::Null)}) {
            config.lastConfig = {{QStringLiteral("allowed_ips"), value}};
            QCOMPARE(backend.allowedIps(config), everything);
        }

        config.hostName = QStringLiteral("203.0.113.5");
        config.lastConfig = {{QStringLiteral("hostName"), QStringLiteral("198.51.100.1")}};
        QCOMPARE(backend.endpointHost(config), QStringLiteral("203.0.113.5"));
        config.hostName.clear();
        QCOMPARE(backend.endpointHost(config), QStringLiteral("198.51.100.1"));

        QCOMPARE(backend.hexKey(QLatin1String(TestKeys::ServerPublic)),
                 QLatin1String(TestKeys::ServerPublicHex));
        QCOMPARE(backend.hexKey(QLatin1String(TestKeys::ServerPublic) + QStringLiteral("\n")),
                 QLatin1String(TestKeys::ServerPublicHex));
        QCOMPARE(backend.hexKey(QString()), QString());
    }
};

QTEST_GUILESS_MAIN(TestSetConfig)
#include "tst_set_config.moc"
