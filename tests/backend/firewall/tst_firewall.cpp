// The block's rules as pfctl reads and prints them, and the servers' names
// it remembers for when it lets no look-up out.
#include "backend/firewall/EndpointMemory.h"
#include "backend/firewall/FirewallRules.h"
#include "backend/firewall/PfctlReply.h"

#include <QFile>
#include <QJsonArray>
#include <QProcess>
#include <QTest>

Q_DECLARE_METATYPE(FirewallRules::Allowed)

class TestFirewall : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Every ruleset the service writes, through the real pf grammar and
    // printer (../shared/tools/pfctl-check, built by scripts/setup): each
    // parses, and what pfctl prints back, loaded as the service loads it, is
    // read as the service's own.
    void rulesReadBackAsPfctlPrintsThem_data()
    {
        QTest::addColumn<FirewallRules::Allowed>("allowed");
        FirewallRules::Allowed rules;
        QTest::newRow("block") << rules;
        rules.localNetworks = true;
        QTest::newRow("block, LAN") << rules;
        rules = {};
        rules.endpoint = "203.0.113.5";
        rules.port = 51820;
        QTest::newRow("connecting") << rules;
        rules.tunnelInterface = "utun3";
        rules.tunnelDns = {"1.1.1.1", "2606:4700:4700::1111"};
        rules.https = {"198.51.100.10"};
        QTest::newRow("connected") << rules;
        rules.localNetworks = true;
        QTest::newRow("connected, LAN") << rules;
        rules.tunnelDns.clear();
        rules.endpoint = "2001:DB8::5";
        rules.port = 1194;
        QTest::newRow("IPv6 endpoint on a named port, no tunnel DNS") << rules;
        rules.endpoint = "203.0.113.5";
        rules.port = 53;
        QTest::newRow("endpoint on the DNS port") << rules;
        for (int i = 0; i < 8; ++i)
            rules.around << QString("192.0.%1.0/24").arg(i) << QString("2001:db8:%1::/48").arg(i);
        rules.around << "10.1.2.3/8"
                     << "192.0.2.77/32";
        QTest::newRow("many exclusions") << rules;
        rules.appleServices = true;
        QTest::newRow("leak protection: LAN and Apple's networks") << rules;
        rules.onlyThrough = {"10.20.0.0/16", "203.0.113.0/24", "2001:db8:7::/48"};
        QTest::newRow("only selected: none of them by another interface") << rules;
    }

    void rulesReadBackAsPfctlPrintsThem()
    {
        QFETCH(FirewallRules::Allowed, allowed);
        const QString check = ".build-tools/pfctl-check/pfctl-check";
        if (!QFile::exists(check))
            QSKIP("pfctl-check is not built here (scripts/setup builds it from "
                  "../shared/tools/pfctl-check)");
        QProcess pfctl;
        pfctl.start(check, {"-o", "none", "-a", "com.apple/050.tarvex.killswitch", "-nvf", "-"});
        pfctl.write(FirewallRules::text(allowed));
        pfctl.closeWriteChannel();
        QVERIFY(pfctl.waitForFinished());
        QVERIFY2(pfctl.exitCode() == 0, pfctl.readAllStandardError().constData());
        const QString printed = QString::fromLatin1(pfctl.readAllStandardOutput());
        // The table comes first, and "-s rules" leaves it out; "-T show" lists its entries.
        QStringList lines = printed.split('\n', Qt::SkipEmptyParts);
        const QList<FirewallRules::Table> tables = FirewallRules::tables(allowed);
        const QString table = !tables.isEmpty() ? lines.takeFirst() : QString();
        QVERIFY2(PfctlReply::sameRules(lines.join('\n'), FirewallRules::rules(allowed)),
                 qPrintable(printed));
        const QStringList entries =
            table.section('{', 1).section('}', 0, 0).split(' ', Qt::SkipEmptyParts);
        QVERIFY2(PfctlReply::sameEntries(entries.join('\n'),
                                         tables.isEmpty() ? QStringList() : tables[0].entries),
                 qPrintable(table));
        // The optimiser left on would reorder and merge them, as the
        // default load does: not what the check would find.
        pfctl.start(check, {"-a", "com.apple/050.tarvex.killswitch", "-nvf", "-"});
        pfctl.write(FirewallRules::text(allowed));
        pfctl.closeWriteChannel();
        QVERIFY(pfctl.waitForFinished());
        QVERIFY(!PfctlReply::sameRules(QString::fromLatin1(pfctl.readAllStandardOutput()),
                                       FirewallRules::rules(allowed)));
    }

    // Under the block no name is looked up: the servers used last keep their
    // addresses, whatever their names, across a restart too.
    void endpointsUsedLastAreKept()
    {
        EndpointMemory memory;
        for (int i = 0; i < 40; ++i)
            memory.remember(QString("s%1.example").arg(i, 2, 10, QChar('0')),
                            QString("192.0.2.%1").arg(i));
        memory.remember("s10.example", "192.0.2.10");
        memory.remember("a.example", "203.0.113.1");
        QJsonObject settings;
        memory.write(nullptr, &settings);
        EndpointMemory restarted;
        restarted.read({}, settings);
        QCOMPARE(restarted.addressOf("a.example"), "203.0.113.1");
        QCOMPARE(restarted.addressOf("s10.example"), "192.0.2.10");
        QCOMPARE(restarted.addressOf("s09.example"), "192.0.2.9");
        QCOMPARE(restarted.addressOf("s08.example"), QString());
        // An earlier release kept no order: its names, as many as fit.
        QJsonObject endpoints = settings["endpoints"].toObject();
        endpoints.remove("used");
        restarted.read({}, {{"endpoints", endpoints}});
        QCOMPARE(restarted.addressOf("s39.example"), "192.0.2.39");
    }
};

QTEST_GUILESS_MAIN(TestFirewall)
#include "tst_firewall.moc"
