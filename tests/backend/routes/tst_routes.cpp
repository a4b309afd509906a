// Routing messages in macOS's layout, as route(8) writes them: sizes, flags
// and address bits of the commands the facts record. (Reading a table dump is
// every system test's business.)
#include "backend/routes/RouteMessage.h"

#include <QTest>

#include <cstring>

namespace {

template <typename T> T field(const QByteArray &bytes, int offset)
{
    T value;
    std::memcpy(&value, bytes.constData() + offset, sizeof value);
    return value;
}

RouteMessage add(const QString &destination, int prefix, const QString &gateway,
                 const QString &link = QString())
{
    RouteMessage message;
    message.type = RouteMessage::Add;
    message.seq = 1;
    message.destination = QHostAddress(destination);
    message.prefix = prefix;
    message.flags = RouteMessage::Up | RouteMessage::Static |
                    (prefix < 0 ? RouteMessage::Host : 0) |
                    (link.isEmpty() ? RouteMessage::Gateway : 0);
    if (link.isEmpty()) {
        message.gateway = QHostAddress(gateway);
    } else {
        message.gatewayLink = link;
        message.gatewayLinkIndex = 7;
    }
    return message;
}

} // namespace

class TestRoutes : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void writesAsRouteDoes_data()
    {
        QTest::addColumn<RouteMessage>("message");
        QTest::addColumn<int>("length");
        QTest::addColumn<int>("flags");
        QTest::addColumn<int>("addresses");
        QTest::addColumn<int>("maskLength"); // sa_len of the trimmed mask; 0 for none
        QTest::newRow("add -net 0.0.0.0/1 -interface utun7")
            << add("0.0.0.0", 1, QString(), "utun7") << 136 << 0x801 << 0x7 << 5;
        QTest::newRow("add -host 203.0.113.5 192.168.1.1")
            << add("203.0.113.5", -1, "192.168.1.1") << 124 << 0x807 << 0x3 << 0;
        QTest::newRow("add -net 10.0.0.0/8 192.168.1.1")
            << add("10.0.0.0", 8, "192.168.1.1") << 132 << 0x803 << 0x7 << 5;
        QTest::newRow("add -net 198.51.100.0/24 192.168.1.1")
            << add("198.51.100.0", 24, "192.168.1.1") << 132 << 0x803 << 0x7 << 7;
        QTest::newRow("add -inet6 -net 2000::/3 -interface utun7")
            << add("2000::", 3, QString(), "utun7") << 152 << 0x801 << 0x7 << 9;
    }

    void writesAsRouteDoes()
    {
        QFETCH(RouteMessage, message);
        QFETCH(int, length);
        QFETCH(int, flags);
        QFETCH(int, addresses);
        QFETCH(int, maskLength);
        const QByteArray bytes = message.encode();
        QCOMPARE(bytes.size(), length);
        QCOMPARE(int(field<quint16>(bytes, 0)), length);
        QCOMPARE(int(quint8(bytes[2])), 5); // RTM_VERSION
        QCOMPARE(int(quint8(bytes[3])), 1); // RTM_ADD
        QCOMPARE(field<int>(bytes, 8), flags);
        QCOMPARE(field<int>(bytes, 12), addresses);
        QCOMPARE(field<int>(bytes, 20), 1); // rtm_seq
        const bool v6 = message.destination.protocol() == QAbstractSocket::IPv6Protocol;
        QCOMPARE(int(quint8(bytes[92])), v6 ? 28 : 16); // the destination's sa_len first
        QCOMPARE(int(quint8(bytes[93])), v6 ? 30 : 2);  // then its family
        const int gateway = 92 + (v6 ? 28 : 16);
        QCOMPARE(int(quint8(bytes[gateway + 1])), message.gatewayLink.isEmpty() ? 2 : 18);
        if (maskLength)
            QCOMPARE(int(quint8(bytes[length - ((maskLength + 3) & ~3)])), maskLength);
    }
};

QTEST_GUILESS_MAIN(TestRoutes)
#include "tst_routes.moc"
