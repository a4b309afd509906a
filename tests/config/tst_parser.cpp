// The connection-string parser: every layer of the string, the choice of
// container and protocol, the client configuration, and what a failed parse
// keeps, each with the message the user sees.
#include "ClientConfig.h"

#include "config/VpnConfigParser.h"
#include "protocol/VpnServiceProtocol.h"

#include <QTest>

namespace {

const QJsonObject Client{{"client_ip", "10.8.1.2/32"}, {"hostName", "198.51.100.1"}};
const QString ClientText = QJsonDocument(Client).toJson(QJsonDocument::Compact);

QJsonObject container(const QString &name, const QString &protocol,
                      const QJsonValue &lastConfig = ClientText)
{
    return {{"container", name}, {protocol, QJsonObject{{"last_config", lastConfig}}}};
}

QJsonObject document(const QJsonArray &containers, const QString &defaultContainer = QString())
{
    QJsonObject doc{{"containers", containers},
                    {"hostName", "203.0.113.5"},
                    {"dns1", "1.1.1.1"},
                    {"dns2", "1.0.0.1"}};
    if (!defaultContainer.isEmpty())
        doc.insert("defaultContainer", defaultContainer);
    return doc;
}

} // namespace

class TestParser : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void parsesTypicalString()
    {
        const QJsonObject doc = awgDocument(Client);
        const VpnConfigParseResult result =
            VpnConfigParser::parseConfig(encodeConnectionString(doc));
        QVERIFY(result.success);
        QCOMPARE(result.errorMessage, QString());
        QCOMPARE(result.rootObject, doc);
        // clang-format off
        QCOMPARE(VpnServiceProtocol::parsedConfigToJson(result.config), (QJsonObject{{"rawConfig", doc},
            {"defaultContainer", "office-awg"}, {"container", "office-awg"}, {"protocolName", "awg"},
            {"protocolConfig", doc["containers"][0]["awg"]}, {"lastConfig", Client}, {"lastConfigRaw", ClientText},
            {"hostName", "203.0.113.5"}, {"dns1", "1.1.1.1"}, {"dns2", "1.0.0.1"}}));
        // clang-format on
    }

    // Pasted from a mail: wrapped and padded; the URL-safe alphabet only.
    void readsTheOuterLayers()
    {
        const QString clean = encodeConnectionString(awgDocument(Client), false);
        QString broken = "vpn://";
        for (int i = 0; i < clean.size(); i += 60)
            broken += clean.mid(i, 60) + "\r\n";
        for (const QString &input : {broken, "  vpn://" + clean + "==\n", clean})
            QCOMPARE(VpnConfigParser::parseConfig(input).config.lastConfig, Client);
        QString url; // an encoding with "-" or "_", then written the standard way
        for (int i = 0; !url.contains('-') && !url.contains('_'); ++i) {
            QJsonObject doc = awgDocument(Client);
            doc.insert("description", QString("server %1").arg(i));
            url = encodeConnectionString(doc, false);
        }
        QVERIFY(!VpnConfigParser::parseConfig(url.replace('-', '+').replace('_', '/')).success);
        // Claims 1.5 GB uncompressed for a few bytes of stream: refused
        // before it is inflated, which some releases of Qt would allocate first.
        QByteArray packed = qCompress(QByteArray("{}"));
        packed[0] = char(0x60);
        QCOMPARE(VpnConfigParser::parseConfig(packed.toBase64(QByteArray::Base64UrlEncoding))
                     .errorMessage,
                 "Не удалось распаковать VPN-конфигурацию");
    }

    void refuses_data()
    {
        QTest::addColumn<QString>("input");
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("kept"); // the last field filled before the failure
        const QString valid = encodeConnectionString(awgDocument(Client), false);
        const auto row = [](const char *name, const QString &input, const char *message,
                            const char *kept = "") {
            QTest::newRow(name) << input << QString(message) << QString(kept);
        };
        const auto doc = [](const QJsonObject &d) { return encodeConnectionString(d); };
        // clang-format off
        row("empty", "", "Конфигурация соединения пустая");
        row("blanks and line breaks", " \n\t \r\n", "Конфигурация соединения пустая");
        row("prefix only", "vpn://", "Не удалось декодировать VPN-конфигурацию");
        row("outside the alphabet", "vpn://!!! @@@ ***", "Не удалось декодировать VPN-конфигурацию");
        row("upper-case prefix", "VPN://" + valid, "Не удалось распаковать VPN-конфигурацию");
        row("empty document", encodeConnectionString(QByteArray()), "Не удалось распаковать VPN-конфигурацию");
        row("not JSON", encodeConnectionString(QByteArray("not json")), "VPN-конфигурация имеет неверный формат");
        row("an array", encodeConnectionString(QByteArray("[1]")), "VPN-конфигурация имеет неверный формат");
        row("no containers", doc(document({})), "В VPN-конфигурации нет контейнеров", "rawConfig");
        QJsonObject text = document({});
        text.insert("containers", "awg");
        row("containers not a list", doc(text), "В VPN-конфигурации нет контейнеров", "rawConfig");
        row("only empty containers", doc(document({QJsonObject(), 5})), "Контейнер VPN-конфигурации не найден", "rawConfig");
        row("default container absent", doc(document({container("a-awg", "awg")}, "b-awg")), "Контейнер VPN-конфигурации не найден", "rawConfig");
        row("no protocol", doc(document({QJsonObject{{"container", "plain"}, {"name", "x"}}})), "Протокол VPN-конфигурации не найден", "container");
        row("empty protocol settings", doc(document({QJsonObject{{"container", "x-awg"}, {"awg", QJsonObject()}}})), "Настройки протокола VPN-конфигурации не найдены", "protocolName");
        row("no client configuration", doc(document({container("office-awg", "awg", 42)})), "В VPN-конфигурации нет client-конфига", "protocolConfig");
        row("client configuration a list", doc(document({container("office-awg", "awg", "[1]")})), "Client-конфиг VPN имеет неверный формат", "lastConfigRaw");
        row("client configuration broken", doc(document({container("office-awg", "awg", "{x")})), "Client-конфиг VPN имеет неверный формат", "lastConfigRaw");
        // clang-format on
    }

    void refuses()
    {
        QFETCH(QString, input);
        QFETCH(QString, message);
        QFETCH(QString, kept);
        const VpnConfigParseResult result = VpnConfigParser::parseConfig(input);
        QVERIFY(!result.success);
        QCOMPARE(result.errorMessage, message);
        QCOMPARE(result.rootObject, result.config.rawConfig);
        // Filled up to the failing step, and not beyond it.
        const QStringList stages = {"rawConfig", "container", "protocolName", "protocolConfig",
                                    "lastConfigRaw"};
        QStringList filled = stages.mid(0, stages.indexOf(kept) + 1);
        if (!filled.isEmpty())
            filled.append({"hostName", "dns1", "dns2"});
        const QJsonObject fields = VpnServiceProtocol::parsedConfigToJson(result.config);
        for (auto it = fields.begin(); it != fields.end(); ++it) {
            const bool set = it->isObject() ? !it->toObject().isEmpty() : !it->toString().isEmpty();
            if (it.key() != "defaultContainer")
                QVERIFY2(set == filled.contains(it.key()), qPrintable(it.key()));
        }
    }

    void chooses_data()
    {
        QTest::addColumn<QJsonObject>("doc");
        QTest::addColumn<QString>("container");
        QTest::addColumn<QString>("protocol");
        const QJsonArray both{container("office-wireguard", "wireguard"),
                              container("office-awg", "awg")};
        // clang-format off
        QTest::newRow("the named default") << document(both, "office-awg") << "office-awg" << "awg";
        QTest::newRow("the first without a default") << document(both) << "office-wireguard" << "wireguard";
        QTest::newRow("by member name") << document({container("my-vpn", "xray")}) << "my-vpn" << "xray";
        QTest::newRow("awg before wireguard") << document({container("awg-over-wireguard", "awg")}) << "awg-over-wireguard" << "awg";
        // "awg" is no object here, so the first object member by name wins.
        QJsonObject odd = container("office-awg", "b-proto");
        odd.insert("awg", "not an object");
        odd.insert("c-proto", QJsonObject{{"last_config", "{}"}});
        QTest::newRow("first object member") << document({odd}) << "office-awg" << "b-proto";
        // clang-format on
    }

    void chooses()
    {
        QFETCH(QJsonObject, doc);
        QFETCH(QString, container);
        QFETCH(QString, protocol);
        const VpnConfigParseResult result =
            VpnConfigParser::parseConfig(encodeConnectionString(doc));
        QVERIFY(result.success);
        QCOMPARE(result.config.container, container);
        QCOMPARE(result.config.protocolName, protocol);
    }

    void readsClientConfiguration()
    {
        QJsonObject doc = document({container("office-awg", "awg", "{}")});
        QVERIFY(
            VpnConfigParser::parseConfig(encodeConnectionString(doc)).config.lastConfig.isEmpty());
        // The top-level host wins; without it, the client configuration's.
        doc = document({container("office-awg", "awg")});
        QCOMPARE(VpnConfigParser::parseConfig(encodeConnectionString(doc)).config.hostName,
                 "203.0.113.5");
        doc.insert("hostName", "");
        QCOMPARE(VpnConfigParser::parseConfig(encodeConnectionString(doc)).config.hostName,
                 "198.51.100.1");

        QCOMPARE(VpnConfigParser::parsePeerConfig({{"splitTunnel", QVariantMap()}}).errorMessage,
                 "Конфигурация соединения пустая");
        QVERIFY(
            VpnConfigParser::parsePeerConfig({{"config", encodeConnectionString(doc)}}).success);
    }
};

QTEST_GUILESS_MAIN(TestParser)
#include "tst_parser.moc"
