// The client's local work: parsing, input sources, usage and help. Talking to
// the daemon is covered by the system tests.
#include "ClientConfig.h"
#include "Tarvexctl.h"

#include <QJsonDocument>
#include <QTemporaryDir>
#include <QTest>

class TestTarvexctl : public QObject
{
    Q_OBJECT

private:
    const QString valid = encodeConnectionString(awgDocument(clientConfig().lastConfig));

private Q_SLOTS:
    void printsParsedConfiguration()
    {
        const CtlRun run = runTarvexctl({"parse", valid});
        QCOMPARE(run.exitCode, 0);
        const QJsonObject json = QJsonDocument::fromJson(run.out.toUtf8()).object();
        QCOMPARE(json.size(), 10);
        QCOMPARE(json.value("protocolName").toString(), QStringLiteral("awg"));
        QCOMPARE(json.value("lastConfig").toObject().value("client_ip").toString(),
                 QStringLiteral("10.8.1.2/32"));
        QVERIFY(run.err.isEmpty());

        const CtlRun compact = runTarvexctl({"--json", "parse", valid});
        QCOMPARE(compact.out.count('\n'), 1);
    }

    void readsFileAndStandardInput()
    {
        QTemporaryDir dir;
        QFile file(dir.filePath("config.txt"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        // As pasted from a mail: wrapped, with padding.
        for (int i = 0; i < valid.size(); i += 64)
            file.write(valid.mid(i, 64).toUtf8() + "\n");
        file.write("==\n");
        file.close();
        QCOMPARE(runTarvexctl({"parse", "@" + file.fileName()}).exitCode, 0);
        QCOMPARE(runTarvexctl({"parse", "-"}, valid.toUtf8() + "\n").exitCode, 0);
        const CtlRun missing = runTarvexctl({"parse", "@" + dir.filePath("missing")});
        QCOMPARE(missing.exitCode, 1);
        QVERIFY(missing.err.contains("cannot read"));
    }

    void reportsParserMessages_data()
    {
        QTest::addColumn<QString>("input");
        QTest::addColumn<QString>("message");
        QTest::newRow("truncated")
            << valid.left(valid.size() / 2) << "Не удалось распаковать VPN-конфигурацию";
        QTest::newRow("mangled") << "vpn://!!!"
                                 << "Не удалось декодировать VPN-конфигурацию";
        QTest::newRow("blank") << "   "
                               << "Конфигурация соединения пустая";
    }

    void reportsParserMessages()
    {
        QFETCH(QString, input);
        QFETCH(QString, message);
        for (const char *command : {"parse", "connect"}) {
            const CtlRun run = runTarvexctl({command, input});
            QCOMPARE(run.exitCode, 1);
            QCOMPARE(run.err.trimmed(), message);
            QVERIFY(run.out.isEmpty());
        }
    }

    void rejectsBadUsage_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("no command") << QStringList{};
        QTest::newRow("unknown command") << QStringList{"teleport"};
        QTest::newRow("unknown option") << QStringList{"--verbose", "status"};
        QTest::newRow("status with argument") << QStringList{"status", "now"};
        QTest::newRow("parse without string") << QStringList{"parse"};
        QTest::newRow("connect without string") << QStringList{"connect"};
        QTest::newRow("only without destination") << QStringList{"connect", "vpn://x", "--only"};
        QTest::newRow("only and exclude")
            << QStringList{"connect", "vpn://x", "--only", "10.0.0.0/8", "--exclude", "1.2.3.4"};
    }

    void rejectsBadUsage()
    {
        QFETCH(QStringList, arguments);
        const CtlRun run = runTarvexctl(arguments);
        QCOMPARE(run.exitCode, 64);
        QVERIFY(!run.err.isEmpty());
    }

    void explainsItself()
    {
        const CtlRun main = runTarvexctl({"--help"});
        QCOMPARE(main.exitCode, 0);
        for (const char *word : {"parse", "connect", "status", "disconnect", "--json", "64"})
            QVERIFY2(main.out.contains(word), word);
        const CtlRun connect = runTarvexctl({"connect", "--help"});
        QCOMPARE(connect.exitCode, 0);
        QVERIFY(connect.out.contains("--only") && connect.out.contains("--exclude"));
    }
};

QTEST_GUILESS_MAIN(TestTarvexctl)
#include "tst_tarvexctl.moc"
