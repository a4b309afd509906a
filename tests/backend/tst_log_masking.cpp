#include "ClientConfig.h"
#include "ConnectionString.h"

#include "backend/core/LogMasking.h"
#include "protocol/VpnServiceProtocol.h"

#include <QTest>

class TestLogMasking : public QObject
{
    Q_OBJECT

private:
    static void verifyNoSecret(const QString &text)
    {
        for (const char *secret : {TestKeys::ClientPrivate, TestKeys::ClientPrivateHex,
                                   TestKeys::Preshared, TestKeys::PresharedHex})
            QVERIFY2(!text.contains(QLatin1String(secret)), qPrintable(text));
    }

private Q_SLOTS:
    void masksConfigurationProtocolText()
    {
        const QString text =
            QString("set=1\nprivate_key=%1\nreplace_peers=true\npublic_key=%2\npreshared_key=%3\n"
                    "endpoint=203.0.113.5:51820\n")
                .arg(TestKeys::ClientPrivateHex, TestKeys::ServerPublicHex, TestKeys::PresharedHex);
        const QString masked = LogMasking::uapiText(text);
        QCOMPARE(masked, QString("set=1\nprivate_key=<hidden>\nreplace_peers=true\npublic_key=%"
                                 "1\npreshared_key=<hidden>\n"
                                 "endpoint=203.0.113.5:51820\n")
                             .arg(TestKeys::ServerPublicHex));
    }

    void masksClientConfiguration()
    {
        const QJsonObject masked = LogMasking::clientConfig(clientConfig().lastConfig);
        QCOMPARE(masked.value("client_priv_key").toString(), QStringLiteral("<hidden>"));
        QCOMPARE(masked.value("psk_key").toString(), QStringLiteral("<hidden>"));
        QCOMPARE(masked.value("server_pub_key").toString(), QLatin1String(TestKeys::ServerPublic));
        QCOMPARE(masked.value("client_ip").toString(), QStringLiteral("10.8.1.2/32"));
    }

    void masksRequestLines()
    {
        ParsedVpnConfig config = clientConfig();
        const QJsonObject document = awgDocument(config.lastConfig);
        config.rawConfig = document;
        config.lastConfigRaw =
            QString::fromUtf8(QJsonDocument(config.lastConfig).toJson(QJsonDocument::Compact));
        const QString string = encodeConnectionString(document);
        const QJsonObject request{
            {"command", "connect"},
            {"config", VpnServiceProtocol::parsedConfigToJson(config)},
            {"peer",
             QJsonObject{{"config", string}, {"splitTunnel", QJsonObject{{"enabled", false}}}}}};
        const QString masked =
            LogMasking::messageLine(QJsonDocument(request).toJson(QJsonDocument::Compact));
        verifyNoSecret(masked);
        QVERIFY(!masked.contains(string));
        // Shape and harmless values stay.
        const QJsonObject back = QJsonDocument::fromJson(masked.toUtf8()).object();
        QCOMPARE(back.value("command").toString(), QStringLiteral("connect"));
        QCOMPARE(back.value("config").toObject().value("hostName").toString(),
                 QStringLiteral("203.0.113.5"));
        QCOMPARE(back.value("peer").toObject().value("config").toString(),
                 QStringLiteral("<hidden>"));

        // Not JSON: found by their look.
        const QString garbage =
            LogMasking::messageLine(("{\"command\":\"connect\",\"peer\":{\"config\":\"" + string +
                                     "\", key " + TestKeys::ClientPrivate + " trailing")
                                        .toUtf8());
        verifyNoSecret(garbage);
        QVERIFY(!garbage.contains("vpn://A"));
        QVERIFY(garbage.contains("trailing"));
    }
};

QTEST_GUILESS_MAIN(TestLogMasking)
#include "tst_log_masking.moc"
