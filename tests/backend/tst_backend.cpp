// The backend's own texts and decisions, in-process: the set transaction, the
// reading of replies, addresses and settings, and the marked block in
// /etc/hosts, where only a complete block of ours is replaced or removed and
// every other byte stays as it was. What it does to the rest of the host, and
// how it runs the tools, is the system tests' business.
#include "ClientConfig.h"
#include "EmptyHost.h"

#include "backend/MacVpnBackend.h"
#include "backend/core/HostJournal.h"
#include "backend/plan/BypassFilter.h"
#include "backend/firewall/EndpointMemory.h"
#include "backend/firewall/FirewallRules.h"
#include "backend/firewall/PfctlReply.h"
#include "backend/routes/RouteReply.h"
#include "backend/routes/RoutingTable.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QProcess>
#include <QTest>

#include <sys/stat.h>

namespace {

const QString Typical =
    QString("set=1\nprivate_key=%1\nreplace_peers=true\njc=4\njmin=40\njmax=70\n"
            "public_key=%2\npreshared_key=%3\nendpoint=203.0.113.5:51820\n"
            "replace_allowed_ips=true\npersistent_keepalive_interval=25\n"
            "allowed_ip=0.0.0.0/0\nallowed_ip=::/0\n")
        .arg(TestKeys::ClientPrivateHex, TestKeys::ServerPublicHex, TestKeys::PresharedHex);

const QByteArray Block = "# BEGIN TARVEX_VPN_CLIENT\n198.51.100.10\ttarvex.com\n"
                         "198.51.100.11\ttarvex.com\n# END TARVEX_VPN_CLIENT\n";
const QByteArray Begin = "# BEGIN TARVEX_VPN_CLIENT\n";
const QByteArray End = "# END TARVEX_VPN_CLIENT\n";

} // namespace

Q_DECLARE_METATYPE(FirewallRules::Allowed)

class TestBackend : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir dir;
    MacVpnBackend pure{emptyHost(dir)};

private Q_SLOTS:
    void setTransaction_data()
    {
        QTest::addColumn<QJsonObject>("overrides");
        QTest::addColumn<QString>("host");
        QTest::addColumn<QString>("text");
        QTest::newRow("typical") << QJsonObject() << "203.0.113.5" << Typical;
        // Defaults, a number where text belongs, lower-case names never read.
        QString plain = Typical;
        plain.replace(QRegularExpression("j[a-z]+=\\d+\\n|preshared_key=.*\\n"), QString())
            .replace("interval=25", "interval=60")
            .replace("endpoint=203.0.113.5:51820", "endpoint=[2001:db8::5]:443");
        // clang-format off
        const QJsonObject defaults{{"Jc", QJsonValue::Null}, {"jc", "4"}, {"Jmin", 40}, {"Jmax", ""},
            {"psk_key", ""}, {"persistent_keep_alive", 25}, {"port", "443"}, {"allowed_ips", QJsonArray{" ", 5}}};
        // clang-format on
        QTest::newRow("defaults, IPv6 endpoint") << defaults << "2001:db8::5" << plain;
        QString amnezia = Typical;
        amnezia.replace("jmax=70\n", "jmax=70\ns1=15\nh4=5-9\ni1=<b 0x01>\n");
        QTest::newRow("AmneziaWG parameters in order")
            << QJsonObject{{"I1", "<b 0x01>"}, {"H4", "5-9"}, {"S1", "15"}} << "203.0.113.5"
            << amnezia;
    }

    void setTransaction()
    {
        QFETCH(QJsonObject, overrides);
        QFETCH(QString, host);
        QFETCH(QString, text);
        ParsedVpnConfig config = clientConfig(overrides);
        config.hostName = host;
        QCOMPARE(pure.uapiSetConfig(config), text);
    }

    void readsErrorNumbers_data()
    {
        QTest::addColumn<QString>("reply");
        QTest::addColumn<int>("error");
        const QStringList failures = {"",        "errno",     "=5",
                                      "ERRNO=0", "errno=abc", "errno=9999999999"};
        for (const QString &failure : failures)
            QTest::newRow(qPrintable("\"" + failure + "\"")) << failure << -1;
        QTest::newRow("success") << "errno=0" << 0;
        QTest::newRow("after a listing") << "private_key=ab\nlisten_port=0\nerrno=-22" << -22;
    }

    void readsErrorNumbers()
    {
        QFETCH(QString, reply);
        QFETCH(int, error);
        QCOMPARE(pure.uapiErrno(reply), error);
    }

    void derivesValues()
    {
        const auto port = [this](const QJsonValue &value) {
            return pure.endpointPort(clientConfig({{"port", value}}));
        };
        QCOMPARE(port(51820), 51820);
        QCOMPARE(port("51820"), 51820);
        for (const QJsonValue &bad : {QJsonValue(1.5), QJsonValue(3e9), QJsonValue("x"),
                                      QJsonValue(""), QJsonValue(QJsonValue::Null)})
            QCOMPARE(port(bad), 0);
        QCOMPARE(pure.clientIpv4(clientConfig({{"client_ip", "10.0.0.2/24"}})), "10.0.0.2");
        QCOMPARE(pure.clientIpv4(clientConfig({{"client_ip", "/24"}})), "");
        QCOMPARE(
            pure.allowedIps(clientConfig({{"allowed_ips", QJsonArray{" 10.0.0.0/8 ", "", 5}}})),
            QStringList{"10.0.0.0/8"});
        QCOMPARE(pure.allowedIps(clientConfig({{"allowed_ips", "10.0.0.0/8"}})),
                 (QStringList{"0.0.0.0/0", "::/0"}));
        QCOMPARE(pure.hexKey(QString(TestKeys::Preshared) + "\n"), TestKeys::PresharedHex);
    }

    // What the real tools printed on a Mac (tests/standins/transcripts), read
    // by the product's own readers: each record's reading is the one it holds.
    void readsTheToolsAsTheyAnswer_data()
    {
        QTest::addColumn<QJsonObject>("record");
        const QDir transcripts("tests/standins/transcripts");
        QVERIFY(transcripts.exists());
        for (const QString &release : transcripts.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            for (const QFileInfo &file :
                 QDir(transcripts.filePath(release)).entryInfoList({"*.json"})) {
                QFile records(file.filePath());
                QVERIFY(records.open(QIODevice::ReadOnly));
                for (const QJsonValue &record :
                     QJsonDocument::fromJson(records.readAll()).array()) {
                    if (record["reader"].isString())
                        QTest::newRow(qPrintable(release + ": " + record["source"].toString()))
                            << record.toObject();
                }
            }
        }
    }

    void readsTheToolsAsTheyAnswer()
    {
        QFETCH(QJsonObject, record);
        const QString out = record["stdout"].toString(), err = record["stderr"].toString();
        const QString reader = record["reader"].toString();
        QJsonValue read;
        if (reader == "pfctl-token")
            read = PfctlReply::enableToken(err);
        else if (reader == "pfctl-references")
            read = QJsonArray::fromStringList(PfctlReply::references(out));
        else if (reader == "pfctl-enabled")
            read = PfctlReply::isEnabled(out);
        else if (reader == "pfctl-reaches")
            read = PfctlReply::reachesAppleAnchors(out);
        else if (reader == "pfctl-same")
            read = PfctlReply::sameRules(out, record["rules"].toVariant().toStringList());
        else if (reader == "pfctl-gone")
            read = PfctlReply::referenceGone(err);
        else if (reader == "route-failure")
            read =
                RouteReply::failure(record["command"][2] != "get", record["status"] == 0, out, err);
        else if (reader == "services")
            read = QJsonArray::fromStringList(pure.enabledServices(out));
        else if (reader == "netstat") {
            QJsonArray routes;
            for (const RoutingTable::Route &route : RoutingTable::parse(out).routes)
                routes.append(QString("%1/%2 %3 %4")
                                  .arg(route.network.toString())
                                  .arg(route.prefix)
                                  .arg(route.gateway, route.interface));
            read = routes;
        }
        QCOMPARE(read, record["expect"]);
    }

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
        QVERIFY2(PfctlReply::sameRules(printed, FirewallRules::rules(allowed)), qPrintable(printed));
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

    // The network's resolver never routes these around the tunnel: whole
    // ranges, not one address of each.
    void bypassRefusesWholeRanges_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<QString>("reason");
        const QStringList loopback = {"127.0.0.1", "127.0.0.2", "127.255.255.254", "::1"};
        const QStringList linkLocal = {"169.254.0.1", "169.254.255.254", "fe80::1", "febf::1"};
        const QStringList multicast = {"224.0.0.1", "239.255.255.250", "ff02::1", "ff0e::1"};
        for (const auto &[addresses, reason] : {std::pair{loopback, "loopback"},
                                                {linkLocal, "link-local"},
                                                {multicast, "multicast"}}) {
            for (const QString &address : addresses)
                QTest::newRow(qPrintable(address)) << address << reason;
        }
        QTest::newRow("broadcast") << "255.255.255.255"
                                   << "broadcast";
        QTest::newRow("0.0.0.0") << "0.0.0.0"
                                 << "unspecified";
        QTest::newRow("::") << "::"
                            << "unspecified";
        QTest::newRow("the tunnel's DNS") << "1.1.1.1"
                                          << "the tunnel's own";
        QTest::newRow("the tunnel's address") << "10.8.1.2"
                                              << "the tunnel's own";
        QTest::newRow("private, for a public name") << "10.1.2.3"
                                                    << "private, for a name that is not local";
        QTest::newRow("a public address") << "198.51.100.10"
                                          << "";
    }

    void bypassRefusesWholeRanges()
    {
        QFETCH(QString, address);
        QFETCH(QString, reason);
        const BypassFilter::Verdict verdict =
            BypassFilter::filter("tarvex.com", {QHostAddress(address)},
                                 {QHostAddress("1.1.1.1"), QHostAddress("10.8.1.2")});
        QCOMPARE(verdict.dropped,
                 reason.isEmpty() ? QStringList() : QStringList{address + ": " + reason});
    }

    // Only our block's bytes change: unpinning gives back the file as it was,
    // but for a block of ours that an earlier run left.
    void pinAndUnpin_data()
    {
        QTest::addColumn<QByteArray>("original");
        QTest::addColumn<QByteArray>("pinned");
        QTest::addColumn<QByteArray>("unpinned");
        const auto row = [](const char *name, const QByteArray &original, const QByteArray &pinned,
                            const QByteArray &unpinned = "as before") {
            QTest::newRow(name) << original << pinned
                                << (unpinned == "as before" ? original : unpinned);
        };
        const QByteArray earlier = Begin + "192.0.2.1\ttarvex.com\n" + End;
        // clang-format off
        row("no final line feed", "127.0.0.1\tlocalhost", "127.0.0.1\tlocalhost\n" + Block);
        row("an earlier block replaced where it is", "\n127.0.0.1\tlocalhost\n" + earlier + "\n::1\tlocalhost\n", "\n127.0.0.1\tlocalhost\n" + Block + "\n::1\tlocalhost\n", "\n127.0.0.1\tlocalhost\n\n::1\tlocalhost\n");
        row("only a block", Block, Block, "");
        row("an empty file", "", Block);
        row("someone else's begin line before user lines", Begin + "10.0.0.1 printer\n", Begin + "10.0.0.1 printer\n" + Block);
        row("stray end line before the block", End + "10.0.0.1\tprinter\n", End + "10.0.0.1\tprinter\n" + Block);
        row("markers that are not whole lines", "x" + Begin + "10.0.0.2\tnas\n" + End.chopped(1) + " x\n", "x" + Begin + "10.0.0.2\tnas\n" + End.chopped(1) + " x\n" + Block);
        row("bytes that are not UTF-8 and blank lines", "10.0.0.3\tcaf\xe9\n\n\n\n", "10.0.0.3\tcaf\xe9\n\n\n\n" + Block);
        // clang-format on
    }

    void pinAndUnpin()
    {
        QFETCH(QByteArray, original);
        QFETCH(QByteArray, pinned);
        QFETCH(QByteArray, unpinned);
        QTemporaryDir dir;
        const MacHostEnvironment host = emptyHost(dir);
        QFile file(host.hostsFile);
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(original);
        file.close();
        ::chmod(QFile::encodeName(host.hostsFile).constData(), 0640);
        MacVpnBackend backend(host);
        const auto read = [&host] {
            QFile file(host.hostsFile);
            return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        };

        // A second and a third connect leave one block, not three.
        for (int cycle = 0; cycle < 3; ++cycle)
            backend.pinControlPlaneHosts({"198.51.100.10", "198.51.100.11"});
        QCOMPARE(read(), pinned);
        struct stat info = {};
        QCOMPARE(::stat(QFile::encodeName(host.hostsFile).constData(), &info), 0);
        QCOMPARE(info.st_mode & 07777, mode_t(0640));
        backend.unpinControlPlaneHosts();
        QCOMPARE(read(), unpinned);
        backend.unpinControlPlaneHosts();
        QCOMPARE(read(), unpinned);
    }

    // Recovery undoes what the journal says, as root: a journal that anyone
    // but the service could have written, or that a write left unfinished,
    // is read as nothing at all.
    void journalTrustedOnlyAsWritten_data()
    {
        QTest::addColumn<QString>("tamper");
        QTest::addColumn<bool>("trusted");
        QTest::newRow("as written") << "" << true;
        QTest::newRow("writable by others") << "chmod" << false;
        QTest::newRow("a symbolic link in its place") << "link" << false;
        QTest::newRow("a pipe in its place, which would block the read") << "fifo" << false;
        QTest::newRow("cut short") << "truncate" << false;
        QTest::newRow("empty") << "empty" << false;
    }

    void journalTrustedOnlyAsWritten()
    {
        QFETCH(QString, tamper);
        QFETCH(bool, trusted);
        QTemporaryDir dir;
        const QString path = dir.filePath("Journal");
        const QString session = path + "/session.json";
        const QJsonObject route{{"routes", QJsonArray{"203.0.113.5"}}};
        QString error;
        QVERIFY(HostJournal(path).save({route, {}}, &error));
        QFile file(session);
        QVERIFY(file.open(QIODevice::ReadWrite));
        if (tamper == "chmod")
            QVERIFY(file.setPermissions(file.permissions() | QFile::WriteOther));
        else if (tamper == "link")
            QVERIFY(file.rename(path + "/elsewhere.json") &&
                    QFile::link("elsewhere.json", session));
        else if (tamper == "fifo")
            QVERIFY(file.remove() && ::mkfifo(QFile::encodeName(session).constData(), 0600) == 0);
        else if (!tamper.isEmpty())
            QVERIFY(file.resize(tamper == "empty" ? 0 : file.size() / 2));
        file.close();
        QCOMPARE(HostJournal(path).load().session, trusted ? route : QJsonObject());
    }
};

QTEST_GUILESS_MAIN(TestBackend)
#include "tst_backend.moc"
