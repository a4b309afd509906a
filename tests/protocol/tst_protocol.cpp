#include "protocol/VpnServiceProtocol.h"

#include <QJsonArray>
#include <QJsonParseError>
#include <QLocalSocket>
#include <QTest>

#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

// Reads one message from a socket whose other end receives the given pieces
// from another thread, with a pause before each.
bool readFromPieces(const QList<QByteArray> &pieces, QJsonObject *message, QString *error,
                    int timeoutMs = 2000)
{
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0)
        return false;
    std::thread writer([fd = fds[1], pieces] {
        for (const QByteArray &piece : pieces) {
            ::usleep(30000);
            [[maybe_unused]] const auto n = ::write(fd, piece.constData(), size_t(piece.size()));
        }
        ::usleep(200000);
        ::close(fd);
    });
    QLocalSocket socket;
    socket.setSocketDescriptor(fds[0]);
    const bool ok = VpnServiceProtocol::readMessage(&socket, message, error, timeoutMs);
    writer.join();
    return ok;
}

} // namespace

class TestProtocol : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void encodesCompactLine()
    {
        QCOMPARE(VpnServiceProtocol::encodeMessage(QJsonObject()), QByteArray("{}\n"));
        const QJsonObject nested{{QStringLiteral("text"), QStringLiteral("a\nb")},
                                 {QStringLiteral("n"), 1}};
        const QByteArray encoded = VpnServiceProtocol::encodeMessage(nested);
        QCOMPARE(encoded, QByteArray("{\"n\":1,\"text\":\"a\\nb\"}\n"));
        QCOMPARE(encoded.count('\n'), 1);
    }

    void readsReplyArrivingInChunks()
    {
        QJsonObject message;
        QString error = QStringLiteral("untouched");
        QVERIFY(readFromPieces({"{\"ok\":", "true,\"status\":\"con", "nected\"}\n{\"second\":1}\n"},
                               &message, &error));
        QCOMPARE(message, (QJsonObject{{QStringLiteral("ok"), true},
                                       {QStringLiteral("status"), QStringLiteral("connected")}}));
        QCOMPARE(error, QStringLiteral("untouched"));
    }

    void acceptsCarriageReturnBeforeLineFeed()
    {
        QJsonObject message;
        QVERIFY(readFromPieces({"{\"a\":1}\r\n"}, &message, nullptr));
        QCOMPARE(message.value(QStringLiteral("a")).toInt(), 1);
    }

    void timesOutWithoutLineFeed()
    {
        QJsonObject message;
        QString error;
        QVERIFY(!readFromPieces({"{\"ok\":true}"}, &message, &error, 500));
        QCOMPARE(error, QStringLiteral("timeout"));

        // A zero or negative allowance reads nothing at all.
        for (const int allowance : {0, -5}) {
            QString reason;
            QVERIFY(!readFromPieces({"{}\n"}, &message, &reason, allowance));
            QCOMPARE(reason, QStringLiteral("timeout"));
        }
    }

    void reportsParserTexts()
    {
        QJsonObject message;
        QString error;
        QVERIFY(!readFromPieces({"[1,2]\n"}, &message, &error));
        QCOMPARE(error, QJsonParseError().errorString()); // the parser's text for success
        QVERIFY(!readFromPieces({"plain words\n"}, &message, &error));
        QVERIFY(error != QJsonParseError().errorString());
        QVERIFY(!error.isEmpty());
        QVERIFY(message.isEmpty());
    }

    void namesStatuses()
    {
        QCOMPARE(VpnServiceProtocol::statusToString(PlatformVpnBackend::Disconnected),
                 QStringLiteral("disconnected"));
        QCOMPARE(VpnServiceProtocol::statusToString(PlatformVpnBackend::Connecting),
                 QStringLiteral("connecting"));
        QCOMPARE(VpnServiceProtocol::statusToString(PlatformVpnBackend::Connected),
                 QStringLiteral("connected"));
        QCOMPARE(VpnServiceProtocol::statusToString(PlatformVpnBackend::Disconnecting),
                 QStringLiteral("disconnecting"));
        QCOMPARE(VpnServiceProtocol::statusToString(PlatformVpnBackend::Error),
                 QStringLiteral("error"));
        QCOMPARE(VpnServiceProtocol::statusToString(static_cast<PlatformVpnBackend::Status>(5)),
                 QStringLiteral("unknown"));
        QCOMPARE(VpnServiceProtocol::statusToString(static_cast<PlatformVpnBackend::Status>(-1)),
                 QStringLiteral("unknown"));
    }

    void configRoundTrips()
    {
        ParsedVpnConfig config;
        config.rawConfig = {{QStringLiteral("containers"), QJsonArray{}}};
        config.defaultContainer = QStringLiteral("amnezia-awg");
        config.container = QStringLiteral("amnezia-awg");
        config.protocolName = QStringLiteral("awg");
        config.protocolConfig = {{QStringLiteral("last_config"), QStringLiteral("{}")}};
        config.lastConfigRaw = QStringLiteral("{\"mtu\":\"1280\"}");
        config.lastConfig = {{QStringLiteral("mtu"), QStringLiteral("1280")}};
        config.hostName = QStringLiteral("203.0.113.5");
        config.dns1 = QStringLiteral("1.1.1.1");
        config.dns2 = QStringLiteral("1.0.0.1");

        const QJsonObject json = VpnServiceProtocol::parsedConfigToJson(config);
        QCOMPARE(json.size(), 10);
        const ParsedVpnConfig back = VpnServiceProtocol::parsedConfigFromJson(json);
        QCOMPARE(back.rawConfig, config.rawConfig);
        QCOMPARE(back.defaultContainer, config.defaultContainer);
        QCOMPARE(back.container, config.container);
        QCOMPARE(back.protocolName, config.protocolName);
        QCOMPARE(back.protocolConfig, config.protocolConfig);
        QCOMPARE(back.lastConfigRaw, config.lastConfigRaw);
        QCOMPARE(back.lastConfig, config.lastConfig);
        QCOMPARE(back.hostName, config.hostName);
        QCOMPARE(back.dns1, config.dns1);
        QCOMPARE(back.dns2, config.dns2);

        // Empty fields still travel, as empty strings and objects.
        const QJsonObject empty = VpnServiceProtocol::parsedConfigToJson(ParsedVpnConfig());
        QCOMPARE(empty.size(), 10);
        QVERIFY(empty.value(QStringLiteral("lastConfig")).isObject());
        QVERIFY(empty.value(QStringLiteral("dns2")).isString());
    }

    void wrongTypesGiveEmptyFields()
    {
        const ParsedVpnConfig config = VpnServiceProtocol::parsedConfigFromJson({
            {QStringLiteral("dns1"), 8},
            {QStringLiteral("lastConfig"), QStringLiteral("{\"client_ip\":\"10.0.0.2\"}")},
            {QStringLiteral("lastConfigRaw"), QStringLiteral("{\"client_ip\":\"10.0.0.2\"}")},
            {QStringLiteral("rawConfig"), QJsonArray{1}},
            {QStringLiteral("unknown"), QStringLiteral("ignored")},
            {QStringLiteral("hostName"), QStringLiteral("vpn.example.net")},
        });
        QVERIFY(config.dns1.isEmpty());
        QVERIFY(config.lastConfig.isEmpty());
        QVERIFY(config.rawConfig.isEmpty());
        QCOMPARE(config.lastConfigRaw, QStringLiteral("{\"client_ip\":\"10.0.0.2\"}"));
        QCOMPARE(config.hostName, QStringLiteral("vpn.example.net"));

        const ParsedVpnConfig blank = VpnServiceProtocol::parsedConfigFromJson(QJsonObject());
        QVERIFY(blank.container.isEmpty() && blank.protocolConfig.isEmpty() &&
                blank.dns2.isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestProtocol)
#include "tst_protocol.moc"
