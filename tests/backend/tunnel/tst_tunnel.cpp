// The tunnel program's side: the set transaction the service hands it, and
// the error numbers it answers with.
#include "ClientConfig.h"

#include "backend/tunnel/UapiClient.h"
#include "backend/tunnel/UapiSetConfig.h"

#include <QJsonArray>
#include <QRegularExpression>
#include <QTest>

namespace {

const QString Typical =
    QString("set=1\nprivate_key=%1\nreplace_peers=true\njc=4\njmin=40\njmax=70\n"
            "public_key=%2\npreshared_key=%3\nendpoint=203.0.113.5:51820\n"
            "replace_allowed_ips=true\npersistent_keepalive_interval=25\n"
            "allowed_ip=0.0.0.0/0\nallowed_ip=::/0\n")
        .arg(TestKeys::ClientPrivateHex, TestKeys::ServerPublicHex, TestKeys::PresharedHex);

} // namespace

class TestTunnel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
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
        QString withAwgKeys = Typical;
        withAwgKeys.replace("jmax=70\n", "jmax=70\ns1=15\nh4=5-9\ni1=<b 0x01>\n");
        QTest::newRow("AmneziaWG parameters in order")
            << QJsonObject{{"I1", "<b 0x01>"}, {"H4", "5-9"}, {"S1", "15"}} << "203.0.113.5"
            << withAwgKeys;
    }

    void setTransaction()
    {
        QFETCH(QJsonObject, overrides);
        QFETCH(QString, host);
        QFETCH(QString, text);
        ParsedVpnConfig config = clientConfig(overrides);
        config.hostName = host;
        QCOMPARE(UapiSetConfig::text(config), text);
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
        QCOMPARE(UapiClient::errnoOf(reply), error);
    }
};

QTEST_GUILESS_MAIN(TestTunnel)
#include "tst_tunnel.moc"
