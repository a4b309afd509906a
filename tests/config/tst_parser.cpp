#include "ConnectionString.h"
#include "LogCapture.h"

#include "config/VpnConfigParser.h"

#include <QElapsedTimer>
#include <QTest>

namespace {

const QString Empty = "Конфигурация соединения пустая";
const QString Undecodable = "Не удалось декодировать VPN-конфигурацию";
const QString Uncompressable = "Не удалось распаковать VPN-конфигурацию";
const QString BadFormat = "VPN-конфигурация имеет неверный формат";
const QString NoContainers = "В VPN-конфигурации нет контейнеров";
const QString NoContainer = "Контейнер VPN-конфигурации не найден";
const QString NoProtocol = "Протокол VPN-конфигурации не найден";
const QString NoProtocolSettings = "Настройки протокола VPN-конфигурации не найдены";
const QString NoClientConfig = "В VPN-конфигурации нет client-конфига";
const QString BadClientConfig = "Client-конфиг VPN имеет неверный формат";

const QJsonObject Client{
    {"client_ip", "10.8.1.2/32"}, {"hostName", "198.51.100.1"}, {"port", 51820}};

QString lastConfigText(const QJsonObject &client = Client)
{
    return QString::fromUtf8(QJsonDocument(client).toJson(QJsonDocument::Compact));
}

QJsonObject container(const QString &name, const QString &protocol = QString(),
                      const QJsonObject &settings = {{"last_config", lastConfigText()}})
{
    QJsonObject object{{"container", name}};
    if (!protocol.isEmpty())
        object.insert(protocol, settings);
    return object;
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

VpnConfigParseResult parse(const QJsonObject &doc)
{
    return VpnConfigParser::parseConfig(encodeConnectionString(doc));
}

} // namespace

class TestParser : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void parsesTypicalString()
    {
        LogCapture log;
        const QJsonObject doc = awgDocument(Client);
        const VpnConfigParseResult result =
            VpnConfigParser::parseConfig(encodeConnectionString(doc));
        QVERIFY(result.success);
        QCOMPARE(result.errorMessage, QString());
        QCOMPARE(result.rootObject, doc);
        QCOMPARE(result.config.rawConfig, doc);
        QCOMPARE(result.config.defaultContainer, QStringLiteral("amnezia-awg"));
        QCOMPARE(result.config.container, QStringLiteral("amnezia-awg"));
        QCOMPARE(result.config.protocolName, QStringLiteral("awg"));
        QCOMPARE(result.config.lastConfig, Client);
        QCOMPARE(result.config.lastConfigRaw, lastConfigText());
        QCOMPARE(result.config.hostName, QStringLiteral("203.0.113.5"));
        QCOMPARE(result.config.dns1, QStringLiteral("1.1.1.1"));
        QCOMPARE(result.config.dns2, QStringLiteral("1.0.0.1"));
        QVERIFY(log.lines().isEmpty()); // success writes no log
    }

    void outerLayers_data()
    {
        QTest::addColumn<QString>("input");
        QTest::addColumn<QString>("message");
        const QString valid = encodeConnectionString(awgDocument(Client), false);
        QTest::newRow("empty") << QString() << Empty;
        QTest::newRow("blanks and line breaks") << " \n\t \r\n" << Empty;
        QTest::newRow("prefix only") << "vpn://" << Undecodable;
        QTest::newRow("outside alphabet") << "vpn://!!! @@@ ***" << Undecodable;
        QTest::newRow("upper-case prefix") << "VPN://" + valid << Uncompressable;
        QTest::newRow("corrupt stream")
            << encodeConnectionString(QByteArray("{}")).left(14) + "AAAAAAAA" << Uncompressable;
        QTest::newRow("empty document") << encodeConnectionString(QByteArray()) << Uncompressable;
        QTest::newRow("not json") << encodeConnectionString(QByteArray("not json")) << BadFormat;
        QTest::newRow("array document") << encodeConnectionString(QByteArray("[1]")) << BadFormat;
    }

    void outerLayers()
    {
        QFETCH(QString, input);
        QFETCH(QString, message);
        LogCapture log;
        const VpnConfigParseResult result = VpnConfigParser::parseConfig(input);
        QVERIFY(!result.success);
        QCOMPARE(result.errorMessage, message);
        QVERIFY(result.rootObject.isEmpty());
        QVERIFY(result.config.rawConfig.isEmpty() && result.config.hostName.isEmpty());
        QVERIFY(log.contains("[VpnConfigParser] \"" + message + "\""));
    }

    void refusesImpossibleSizeWithoutAllocating()
    {
        // Claims 1.5 GB uncompressed for a few bytes of stream.
        QByteArray packed = qCompress(QByteArray("{}"));
        packed[0] = char(0x60);
        const QString input =
            "vpn://" + QString::fromLatin1(packed.toBase64(QByteArray::Base64UrlEncoding));
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(VpnConfigParser::parseConfig(input).errorMessage, Uncompressable);
        QVERIFY(clock.elapsed() < 100);
    }

    void toleratesBreaksAndPadding()
    {
        const QString clean = encodeConnectionString(awgDocument(Client), false);
        QString broken = "vpn://";
        for (int i = 0; i < clean.size(); i += 60)
            broken += clean.mid(i, 60) + "\r\n";
        const QString padded = "  vpn://" + clean + "==\n";
        for (const QString &input : {broken, padded, clean}) {
            const VpnConfigParseResult result = VpnConfigParser::parseConfig(input);
            QVERIFY(result.success);
            QCOMPARE(result.config.lastConfig, Client);
        }
    }

    void rejectsStandardAlphabet()
    {
        // Find a document whose encoding uses "-" or "_", then write those the standard way.
        for (int i = 0; i < 50; ++i) {
            QJsonObject doc = awgDocument(Client);
            doc.insert("description", QString("server %1").arg(i));
            const QString url = encodeConnectionString(doc, false);
            if (!url.contains('-') && !url.contains('_'))
                continue;
            QString standard = url;
            standard.replace('-', '+').replace('_', '/');
            QVERIFY(VpnConfigParser::parseConfig(url).success);
            QVERIFY(!VpnConfigParser::parseConfig(standard).success);
            return;
        }
        QFAIL("no encoding with URL-safe characters found");
    }

    void choosesContainer()
    {
        const QJsonArray both{container("office-wireguard", "wireguard"),
                              container("office-awg", "awg")};
        QCOMPARE(parse(document(both, "office-awg")).config.container,
                 QStringLiteral("office-awg"));
        QCOMPARE(parse(document(both)).config.container, QStringLiteral("office-wireguard"));

        const VpnConfigParseResult absent = parse(document(both, "office-xray"));
        QCOMPARE(absent.errorMessage, NoContainer); // no fall-back to the first one

        const VpnConfigParseResult blanks = parse(document({QJsonObject(), QJsonObject(), 5}));
        QCOMPARE(blanks.errorMessage, NoContainer);
        for (const QJsonValue &containers :
             {QJsonValue(QJsonArray()), QJsonValue("awg"), QJsonValue(QJsonValue::Undefined)}) {
            QJsonObject doc = document({});
            if (containers.isUndefined())
                doc.remove("containers");
            else
                doc.insert("containers", containers);
            QCOMPARE(parse(doc).errorMessage, NoContainers);
        }
    }

    void choosesProtocol()
    {
        QCOMPARE(parse(document({container("my-vpn", "xray")})).config.protocolName,
                 QStringLiteral("xray"));
        QCOMPARE(parse(document({container("awg-over-wireguard", "awg")})).config.protocolName,
                 QStringLiteral("awg"));
        QCOMPARE(parse(document({container("corp-wireguard", "wireguard")})).config.protocolName,
                 QStringLiteral("wireguard"));

        // "awg" is not an object here, so the first object member by name wins.
        QJsonObject odd = container("office-awg", "b-proto");
        odd.insert("awg", "not an object");
        odd.insert("c-proto", QJsonObject{{"last_config", "{}"}});
        QCOMPARE(parse(document({odd})).config.protocolName, QStringLiteral("b-proto"));

        QJsonObject none{{"container", "plain"}, {"name", "text only"}};
        const VpnConfigParseResult noProtocol = parse(document({none}));
        QCOMPARE(noProtocol.errorMessage, NoProtocol);
        QCOMPARE(noProtocol.config.container, QStringLiteral("plain"));

        const VpnConfigParseResult emptySettings =
            parse(document({container("x-awg", "awg", QJsonObject())}));
        QCOMPARE(emptySettings.errorMessage, NoProtocolSettings);
        QCOMPARE(emptySettings.config.protocolName, QStringLiteral("awg"));
    }

    void readsClientConfiguration()
    {
        const auto withLastConfig = [](const QJsonValue &value) {
            return document({container("amnezia-awg", "awg", QJsonObject{{"last_config", value}})});
        };
        const VpnConfigParseResult emptyObject = parse(withLastConfig("{}"));
        QVERIFY(emptyObject.success);
        QVERIFY(emptyObject.config.lastConfig.isEmpty());

        QCOMPARE(parse(withLastConfig("[1]")).errorMessage, BadClientConfig);
        QCOMPARE(parse(withLastConfig("{broken")).errorMessage, BadClientConfig);
        QCOMPARE(parse(withLastConfig(QString())).errorMessage, NoClientConfig);
        QCOMPARE(parse(withLastConfig(42)).errorMessage, NoClientConfig);

        QJsonObject noHost = withLastConfig(lastConfigText());
        QCOMPARE(parse(noHost).config.hostName, QStringLiteral("203.0.113.5"));
        noHost.insert("hostName", "");
        QCOMPARE(parse(noHost).config.hostName, QStringLiteral("198.51.100.1"));
    }

    void keepsFieldsFilledBeforeFailure()
    {
        const VpnConfigParseResult noContainers = parse(document({}));
        QCOMPARE(noContainers.rootObject, document({}));
        QCOMPARE(noContainers.config.rawConfig, document({}));
        QCOMPARE(noContainers.config.hostName, QStringLiteral("203.0.113.5"));
        QCOMPARE(noContainers.config.dns1, QStringLiteral("1.1.1.1"));
        QCOMPARE(noContainers.config.dns2, QStringLiteral("1.0.0.1"));

        const VpnConfigParseResult noContainer =
            parse(document({container("a-awg", "awg")}, "b-awg"));
        QCOMPARE(noContainer.config.defaultContainer, QStringLiteral("b-awg"));
        QVERIFY(noContainer.config.container.isEmpty());

        const VpnConfigParseResult badClient =
            parse(document({container("amnezia-awg", "awg", QJsonObject{{"last_config", "[1]"}})}));
        QCOMPARE(badClient.config.container, QStringLiteral("amnezia-awg"));
        QCOMPARE(badClient.config.protocolName, QStringLiteral("awg"));
        QCOMPARE(badClient.config.protocolConfig, (QJsonObject{{"last_config", "[1]"}}));
        QCOMPARE(badClient.config.lastConfigRaw, QStringLiteral("[1]"));
        QVERIFY(badClient.config.lastConfig.isEmpty());
        QVERIFY(!badClient.success);
    }

    void parsesPeerMaps()
    {
        QCOMPARE(VpnConfigParser::parsePeerConfig({}).errorMessage, Empty);
        QCOMPARE(VpnConfigParser::parsePeerConfig({{"splitTunnel", QVariantMap()}}).errorMessage,
                 Empty);
        const QString string = encodeConnectionString(awgDocument(Client));
        QVERIFY(VpnConfigParser::parsePeerConfig({{"config", string}}).success);
        const VpnConfigParseResult defaults;
        QVERIFY(!defaults.success);
        QVERIFY(defaults.errorMessage.isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestParser)
#include "tst_parser.moc"
