// The wire format both sides share: one compact JSON line each way, read
// back with a time limit, and the configuration as JSON.
#include "protocol/VpnServiceProtocol.h"

#include <QJsonArray>
#include <QJsonParseError>
#include <QLocalSocket>
#include <QTest>

#include <sys/socket.h>
#include <thread>
#include <unistd.h>

class TestProtocol : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void readsOneMessage_data()
    {
        QTest::addColumn<QList<QByteArray>>("pieces");
        QTest::addColumn<int>("timeoutMs");
        QTest::addColumn<QString>("result"); // the object read, or the reason it was not
        // clang-format off
        QTest::newRow("in chunks, a second line dropped") << QList<QByteArray>{"{\"ok\":", "true}\n{\"second\":1}\n"} << 2000 << "{\"ok\":true}";
        QTest::newRow("carriage return") << QList<QByteArray>{"{\"a\":1}\r\n"} << 2000 << "{\"a\":1}";
        QTest::newRow("no line feed") << QList<QByteArray>{"{\"ok\":true}"} << 500 << "timeout";
        QTest::newRow("no time at all") << QList<QByteArray>{"{}\n"} << 0 << "timeout";
        QTest::newRow("an array") << QList<QByteArray>{"[1,2]\n"} << 2000 << QJsonParseError().errorString();
        QTest::newRow("words") << QList<QByteArray>{"plain words\n"} << 2000 << QJsonParseError{0, QJsonParseError::IllegalValue}.errorString();
        // clang-format on
    }

    void readsOneMessage()
    {
        QFETCH(QList<QByteArray>, pieces);
        QFETCH(int, timeoutMs);
        QFETCH(QString, result);
        int fds[2];
        QCOMPARE(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        std::thread writer([fd = fds[1], pieces] {
            for (const QByteArray &piece : pieces) {
                ::usleep(30000);
                [[maybe_unused]] const auto n =
                    ::write(fd, piece.constData(), size_t(piece.size()));
            }
            ::usleep(200000);
            ::close(fd);
        });
        QLocalSocket socket;
        socket.setSocketDescriptor(fds[0]);
        QJsonObject message;
        QString reason = "untouched";
        const bool read = VpnServiceProtocol::readMessage(&socket, &message, &reason, timeoutMs);
        writer.join();
        QCOMPARE(read ? QString(QJsonDocument(message).toJson(QJsonDocument::Compact)) : reason,
                 result);
        QCOMPARE(reason == "untouched", read);
    }

    void carriesTheConfiguration()
    {
        // clang-format off
        const QJsonObject json{{"rawConfig", QJsonObject{{"containers", QJsonArray{}}}},
            {"defaultContainer", "office-awg"}, {"container", "office-awg"}, {"protocolName", "awg"},
            {"protocolConfig", QJsonObject{{"last_config", "{}"}}}, {"lastConfigRaw", "{\"mtu\":\"1280\"}"},
            {"lastConfig", QJsonObject{{"mtu", "1280"}}}, {"hostName", "203.0.113.5"}, {"dns1", "1.1.1.1"},
            {"dns2", "1.0.0.1"}};
        // clang-format on
        QCOMPARE(
            VpnServiceProtocol::parsedConfigToJson(VpnServiceProtocol::parsedConfigFromJson(json)),
            json);
        // Missing or of another type: empty, and every field still travels.
        QJsonObject odd = json;
        odd.insert("dns1", 8);
        odd.insert("lastConfig", "{\"mtu\":\"1280\"}");
        odd.remove("rawConfig");
        odd.insert("unknown", "ignored");
        QJsonObject expected = json;
        expected.insert("dns1", "");
        expected.insert("lastConfig", QJsonObject());
        expected.insert("rawConfig", QJsonObject());
        QCOMPARE(
            VpnServiceProtocol::parsedConfigToJson(VpnServiceProtocol::parsedConfigFromJson(odd)),
            expected);
    }
};

QTEST_GUILESS_MAIN(TestProtocol)
#include "tst_protocol.moc"
