#include "BackendAccess.h"
#include "FakeHost.h"
#include "LogCapture.h"

#include <QDir>
#include <QElapsedTimer>
#include <QTest>

#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

// A configuration socket that accepts one connection, records the request up
// to its closing empty line, sends a scripted reply and holds the connection
// open for a while, as a real tunnel program does between requests.
class ScriptedPeer
{
public:
    ScriptedPeer(const QString &path, QByteArray reply, int holdMs = 200)
    {
        listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        qstrncpy(address.sun_path, QFile::encodeName(path).constData(), sizeof address.sun_path);
        ::bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address);
        ::listen(listener, 1);
        worker = std::thread([this, reply = std::move(reply), holdMs] {
            const int client = ::accept(listener, nullptr, nullptr);
            char chunk[4096];
            while (!request.contains("\n\n")) {
                const ssize_t n = ::read(client, chunk, sizeof chunk);
                if (n <= 0)
                    break;
                request.append(chunk, int(n));
            }
            [[maybe_unused]] const auto written =
                ::write(client, reply.constData(), size_t(reply.size()));
            ::usleep(useconds_t(holdMs) * 1000);
            ::close(client);
        });
    }
    ~ScriptedPeer()
    {
        worker.join();
        ::close(listener);
    }
    QByteArray request;

private:
    int listener = -1;
    std::thread worker;
};

} // namespace

class TestUapi : public QObject
{
    Q_OBJECT

private:
    // A backend whose tunnel is "utun7" in the FakeHost's runtime directory.
    static void point(MacVpnBackend &backend, const FakeHost &host)
    {
        MacVpnBackendAccess::setRuntimeDir(backend, host.runtimeDir());
        MacVpnBackendAccess::setTunnelInterface(backend, QStringLiteral("utun7"));
    }
    static QString socketPath(const FakeHost &host)
    {
        return QDir(host.runtimeDir()).filePath(QStringLiteral("utun7.sock"));
    }

private Q_SLOTS:
    void completesPayloadWithEmptyLine_data()
    {
        QTest::addColumn<QString>("payload");
        QTest::addColumn<QByteArray>("sent");
        QTest::newRow("no line feed") << QStringLiteral("get=1") << QByteArray("get=1\n\n");
        QTest::newRow("one line feed")
            << QStringLiteral("set=1\nlisten_port=0\n") << QByteArray("set=1\nlisten_port=0\n\n");
        QTest::newRow("already closed") << QStringLiteral("get=1\n\n") << QByteArray("get=1\n\n");
    }

    void completesPayloadWithEmptyLine()
    {
        QFETCH(QString, payload);
        QFETCH(QByteArray, sent);
        FakeHost host;
        LogCapture log;
        MacVpnBackend backend(host.environment());
        point(backend, host);
        QString reply;
        QByteArray received;
        {
            ScriptedPeer peer(socketPath(host), "errno=0\n\n");
            reply = backend.uapiCommand(payload);
            received = peer.request;
        }
        QCOMPARE(received, sent);
        QCOMPARE(reply, QStringLiteral("errno=0"));
        QCOMPARE(backend.uapiErrno(reply), 0);
        QVERIFY(log.contains(QStringLiteral("[MacVpnBackend] uapiCommand interface= \"utun7\"")));
        QVERIFY(
            log.contains(QStringLiteral("[MacVpnBackend] uapiCommand finished reply_length= 7")));
    }

    void returnsPartialReplyAfterTimeout()
    {
        FakeHost host;
        MacVpnBackend backend(host.environment());
        point(backend, host);
        ScriptedPeer peer(socketPath(host), "errno=0\n", 5600);
        QElapsedTimer clock;
        clock.start();
        const QString reply = backend.uapiCommand(QStringLiteral("get=1"));
        QVERIFY(clock.elapsed() >= 4900);
        QCOMPARE(reply, QStringLiteral("errno=0"));
    }

    void stopsWaitingWhenPeerHangsUp()
    {
        FakeHost host;
        MacVpnBackend backend(host.environment());
        point(backend, host);
        ScriptedPeer peer(socketPath(host), "errno=-5\n", 0);
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(backend.uapiCommand(QStringLiteral("get=1")), QStringLiteral("errno=-5"));
        QVERIFY(clock.elapsed() < 2000);
    }

    void reportsMissingSocket()
    {
        FakeHost host;
        LogCapture log;
        MacVpnBackend backend(host.environment());
        point(backend, host);
        QCOMPARE(backend.uapiCommand(QStringLiteral("get=1")), QString());
        QVERIFY(log.contains(QStringLiteral("[MacVpnBackend] uapi socket connect failed")));
    }

    void readsErrno_data()
    {
        QTest::addColumn<QString>("reply");
        QTest::addColumn<int>("expected");
        QTest::newRow("zero") << QStringLiteral("errno=0") << 0;
        QTest::newRow("after get lines")
            << QStringLiteral("private_key=ab\nlisten_port=0\nerrno=0") << 0;
        QTest::newRow("negative") << QStringLiteral("errno=-22") << -22;
        QTest::newRow("not a number") << QStringLiteral("errno=abc") << 0;
        QTest::newRow("too large") << QStringLiteral("errno=99999999999") << 0;
        QTest::newRow("empty") << QString() << -1;
        QTest::newRow("no equals") << QStringLiteral("errno") << -1;
        QTest::newRow("leading equals") << QStringLiteral("=errno=1") << -1;
        QTest::newRow("other case") << QStringLiteral("Errno=1\nERRNO=2") << -1;
        QTest::newRow("first wins") << QStringLiteral("errno=1\nerrno=0") << 1;
    }

    void readsErrno()
    {
        QFETCH(QString, reply);
        QFETCH(int, expected);
        FakeHost host;
        const MacVpnBackend backend(host.environment());
        QCOMPARE(backend.uapiErrno(reply), expected);
    }
};

QTEST_GUILESS_MAIN(TestUapi)
#include "tst_uapi.moc"
