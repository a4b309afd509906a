// The backend's own texts and decisions, in-process: the set transaction, the
// reading of replies, addresses and settings. What it does to the host, and
// how it runs the tools, is the system tests' business.
#include "ClientConfig.h"
#include "EmptyHost.h"

#include "backend/MacVpnBackend.h"

#include <QTest>

namespace {

const QString Typical =
    QString("set=1\nprivate_key=%1\nreplace_peers=true\njc=4\njmin=40\njmax=70\n"
            "public_key=%2\npreshared_key=%3\nendpoint=203.0.113.5:51820\n"
            "replace_allowed_ips=true\npersistent_keepalive_interval=25\n"
            "allowed_ip=0.0.0.0/0\nallowed_ip=::/0\n")
        .arg(TestKeys::ClientPrivateHex, TestKeys::ServerPublicHex, TestKeys::PresharedHex);

} // namespace

class TestBackend : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir dir;
    MacVpnBackend pure{emptyHost(dir)};

private Q_SLOTS:
    void setTransaction_data()
    {
        QTest::addColumn<QJsonObject>("overrides");
        QTest::addColumn<QString>("host");
        QTest::addColumn<QString>("text");
        QTest::newRow("typical") << QJsonObject() << "203.0.113.5" << Typical;
        // Defaults, a number where text belongs, lower-case names never read.
        QString plain = Typical;
        plain.replace(QRegularExpression("j[a-z]+=\\d+\\n|preshared_key=.*\\n"), QString())
            .replace("interval=25", "interval=60")
            .replace("endpoint=203.0.113.5:51820", "endpoint=[2001:db8::5]:443");
        // clang-format off
        const QJsonObject defaults{{"Jc", QJsonValue::Null}, {"jc", "4"}, {"Jmin", 40}, {"Jmax", ""},
            {"psk_key", ""}, {"persistent_keep_alive", 25}, {"port", "443"}, {"allowed_ips", QJsonArray{" ", 5}}};
        // clang-format on
        QTest::newRow("defaults, IPv6 endpoint") << defaults << "2001:db8::5" << plain;
        QString amnezia = Typical;
        amnezia.replace("jmax=70\n", "jmax=70\ns1=15\nh4=5-9\ni1=<b 0x01>\n");
        QTest::newRow("AmneziaWG parameters in order")
            << QJsonObject{{"I1", "<b 0x01>"}, {"H4", "5-9"}, {"S1", "15"}} << "203.0.113.5"
            << amnezia;
    }

    void setTransaction()
    {
        QFETCH(QJsonObject, overrides);
        QFETCH(QString, host);
        QFETCH(QString, text);
        ParsedVpnConfig config = clientConfig(overrides);
        config.hostName = host;
        QCOMPARE(pure.uapiSetConfig(config), text);
    }

    void readsErrorNumbers_data()
    {
        QTest::addColumn<QString>("reply");
        QTest::addColumn<int>("error");
        const QStringList failures = {"",        "errno",     "=5",
                                      "ERRNO=0", "errno=abc", "errno=9999999999"};
        for (const QString &failure : failures)
            QTest::newRow(qPrintable("\"" + failure + "\"")) << failure << -1;
        QTest::newRow("success") << "errno=0" << 0;
        QTest::newRow("after a listing") << "private_key=ab\nlisten_port=0\nerrno=-22" << -22;
    }

    void readsErrorNumbers()
    {
        QFETCH(QString, reply);
        QFETCH(int, error);
        QCOMPARE(pure.uapiErrno(reply), error);
    }

    void derivesValues()
    {
        const auto port = [this](const QJsonValue &value) {
            return pure.endpointPort(clientConfig({{"port", value}}));
        };
        QCOMPARE(port(51820), 51820);
        QCOMPARE(port("51820"), 51820);
        for (const QJsonValue &bad : {QJsonValue(1.5), QJsonValue(3e9), QJsonValue("x"),
                                      QJsonValue(""), QJsonValue(QJsonValue::Null)})
            QCOMPARE(port(bad), 0);
        QCOMPARE(pure.clientIpv4(clientConfig({{"client_ip", "10.0.0.2/24"}})), "10.0.0.2");
        QCOMPARE(pure.clientIpv4(clientConfig({{"client_ip", "/24"}})), "");
        QCOMPARE(
            pure.allowedIps(clientConfig({{"allowed_ips", QJsonArray{" 10.0.0.0/8 ", "", 5}}})),
            QStringList{"10.0.0.0/8"});
        QCOMPARE(pure.allowedIps(clientConfig({{"allowed_ips", "10.0.0.0/8"}})),
                 (QStringList{"0.0.0.0/0", "::/0"}));
        QCOMPARE(pure.hexKey(QString(TestKeys::Preshared) + "\n"), TestKeys::PresharedHex);

        const auto split = [this](const QVariantMap &settings) {
            const auto read = pure.splitTunnelFromPeer({{"splitTunnel", settings}});
            return std::tuple(read.enabled, read.mode, read.entries.size());
        };
        const QVariantList one{QVariantMap{{"value", "10.0.0.0/8"}}};
        QCOMPARE(split({}), std::tuple(false, 0, 0));
        QCOMPARE(split({{"enabled", true}, {"mode", 3}, {"entries", one}}),
                 std::tuple(false, 0, 1));
        QCOMPARE(split({{"enabled", true}, {"entries", one}}), std::tuple(false, 0, 1));
        QCOMPARE(split({{"enabled", false}, {"mode", 2}}), std::tuple(false, 2, 0));
        QCOMPARE(split({{"enabled", true}, {"mode", "1"}}), std::tuple(true, 1, 0));
    }
};

QTEST_GUILESS_MAIN(TestBackend)
#include "tst_backend.moc"
