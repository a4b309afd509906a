#include "ClientConfig.h"
#include "FakeHost.h"
#include "LogCapture.h"
#include "ServerThread.h"

#include "protocol/VpnServiceProtocol.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QTest>

#include <unistd.h>

namespace {

QJsonObject parse(const QByteArray &line)
{
    return QJsonDocument::fromJson(line).object();
}

QString parserSuccessText()
{
    return QJsonParseError().errorString();
}

} // namespace

class TestServer : public QObject
{
    Q_OBJECT

private:
    QString socketPath(const FakeHost &host) const
    {
        return host.path(QStringLiteral("service.sock"));
    }

private Q_SLOTS:
    void answersStatus()
    {
        FakeHost host;
        LogCapture log;
        ServerThread server(socketPath(host), host.environment());
        QVERIFY(server.startServing());
        QCOMPARE(server.exchange({"{\"command\":\"status\"}\n"}),
                 QByteArray("{\"error\":\"\",\"ok\":true,\"status\":\"disconnected\"}\n"));
        QVERIFY(log.contains(QString("[MacVpnServiceServer] listening \"%1\" euid= %2")
                                 .arg(socketPath(host))
                                 .arg(::geteuid())));
        QCOMPARE(log.count("service is not running as root; utun creation may fail"),
                 ::geteuid() == 0 ? 0 : 1);
    }

    void collectsRequestAcrossWrites()
    {
        FakeHost host;
        ServerThread server(socketPath(host), host.environment());
        QVERIFY(server.startServing());
        const QJsonObject reply =
            parse(server.exchange({"{\"comm", "and\":\"sta", "tus\"}", "\n"}));
        QCOMPARE(reply.value(QStringLiteral("ok")).toBool(), true);
        QCOMPARE(reply.value(QStringLiteral("status")).toString(), QStringLiteral("disconnected"));
    }

    void answersOnlyTheFirstLine()
    {
        FakeHost host;
        LogCapture log;
        ServerThread server(socketPath(host), host.environment());
        QVERIFY(server.startServing());
        const QByteArray reply =
            server.exchange({"{\"command\":\"status\"}\n{\"command\":\"disconnect\"}\n"});
        QCOMPARE(reply.count('\n'), 1);
        QCOMPARE(parse(reply).value(QStringLiteral("ok")).toBool(), true);
        QCOMPARE(log.count(QStringLiteral("[MacVpnServiceServer] command")), 1);
        QVERIFY(log.contains(
            QStringLiteral("[MacVpnServiceServer] request = {\"command\":\"status\"}")));
    }

    void acceptsCarriageReturn()
    {
        FakeHost host;
        ServerThread server(socketPath(host), host.environment());
        QVERIFY(server.startServing());
        QCOMPARE(parse(server.exchange({"{\"command\":\"status\"}\r\n"}))
                     .value(QStringLiteral("ok"))
                     .toBool(),
                 true);
    }

    void rejectsBadRequests_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<QString>("error");
        QTest::newRow("capitalised command")
            << QByteArray("{\"command\":\"Status\"}\n") << QStringLiteral("unknown command");
        QTest::newRow("missing command")
            << QByteArray("{\"peer\":{}}\n") << QStringLiteral("unknown command");
        QTest::newRow("command not a string")
            << QByteArray("{\"command\":7}\n") << QStringLiteral("unknown command");
        QTest::newRow("array") << QByteArray("[\"status\"]\n") << parserSuccessText();
        QTest::newRow("empty line")
            << QByteArray("\n") << QJsonParseError{0, QJsonParseError::IllegalValue}.errorString();
    }

    void rejectsBadRequests()
    {
        QFETCH(QByteArray, line);
        QFETCH(QString, error);
        FakeHost host;
        ServerThread server(socketPath(host), host.environment());
        QVERIFY(server.startServing());
        const QJsonObject reply = parse(server.exchange({line}));
        QCOMPARE(reply.value(QStringLiteral("ok")).toBool(true), false);
        QCOMPARE(reply.value(QStringLiteral("status")).toString(), QStringLiteral("disconnected"));
        if (QByteArray(QTest::currentDataTag()) == "empty line")
            QVERIFY(!reply.value(QStringLiteral("error")).toString().isEmpty());
        else
            QCOMPARE(reply.value(QStringLiteral("error")).toString(), error);
        QVERIFY(!reply.contains(QStringLiteral("peer")));
    }

    void garbageGivesParserError()
    {
        FakeHost host;
        ServerThread server(socketPath(host), host.environment());
        QVERIFY(server.startServing());
        const QJsonObject reply = parse(server.exchange({"not json at all\n"}));
        QCOMPARE(reply.value(QStringLiteral("ok")).toBool(true), false);
        const QString error = reply.value(QStringLiteral("error")).toString();
        QVERIFY(!error.isEmpty());
        QVERIFY(error != parserSuccessText());
    }

    void failedConnectReportsBackendMessage()
    {
        FakeHost host; // no tunnel program beside the application
        ServerThread server(socketPath(host), host.environment());
        QVERIFY(server.startServing());
        const QJsonObject connect{
            {QStringLiteral("command"), QStringLiteral("connect")},
            {QStringLiteral("config"), VpnServiceProtocol::parsedConfigToJson(clientConfig())},
            {QStringLiteral("peer"),
             QJsonObject{{QStringLiteral("config"), QStringLiteral("vpn://x")}}}};
        const QJsonObject reply = server.request(connect);
        QCOMPARE(reply,
                 (QJsonObject{{QStringLiteral("ok"), false},
                              {QStringLiteral("status"), QStringLiteral("error")},
                              {QStringLiteral("error"),
                               QStringLiteral("Не найден amneziawg-go рядом с приложением")}}));

        // The error stays readable until a disconnect clears it.
        const QJsonObject status =
            server.request({{QStringLiteral("command"), QStringLiteral("status")}});
        QCOMPARE(status.value(QStringLiteral("ok")).toBool(), true);
        QCOMPARE(status.value(QStringLiteral("error")).toString(),
                 QStringLiteral("Не найден amneziawg-go рядом с приложением"));
        const QJsonObject disconnect =
            server.request({{QStringLiteral("command"), QStringLiteral("disconnect")}});
        QCOMPARE(disconnect,
                 (QJsonObject{{QStringLiteral("ok"), true},
                              {QStringLiteral("status"), QStringLiteral("disconnected")},
                              {QStringLiteral("error"), QString()}}));
    }

    void refusesOversizedRequest()
    {
        FakeHost host;
        ServerThread server(socketPath(host), host.environment());
        QVERIFY(server.startServing());
        const QByteArray huge(1024 * 1024 + 1, 'x');
        const QJsonObject reply = parse(server.exchange({huge}));
        QCOMPARE(reply,
                 (QJsonObject{{QStringLiteral("ok"), false},
                              {QStringLiteral("status"), QStringLiteral("disconnected")},
                              {QStringLiteral("error"), QStringLiteral("request too large")}}));
        // Exactly the limit is still buffered, waiting for its line feed.
        QCOMPARE(parse(server.exchange(
                           {QByteArray(1024 * 1024 - 30, ' ') + "{\"command\":\"status\"}\n"}))
                     .value(QStringLiteral("ok"))
                     .toBool(),
                 true);
    }

    void triesStaleRecoveryBeforeGivingUp()
    {
        FakeHost host;
        QVERIFY(QDir().mkpath(socketPath(host))); // in use, and no server behind it
        LogCapture log;
        ServerThread server(socketPath(host), host.environment());
        QVERIFY(!server.startServing());
        QVERIFY(log.contains(
            QString("[MacVpnServiceServer] stale socket detected \"%1\"").arg(socketPath(host))));
        QVERIFY(log.contains("[MacVpnServiceServer] listen failed"));
    }

    void listenFailureStopsStart()
    {
        FakeHost host;
        LogCapture log;
        ServerThread server(host.path(QStringLiteral("no/such/dir/service.sock")),
                            host.environment());
        QVERIFY(!server.startServing());
        QVERIFY(log.contains(QStringLiteral("[MacVpnServiceServer] listen failed")));
    }
};

QTEST_GUILESS_MAIN(TestServer)
#include "tst_server.moc"
