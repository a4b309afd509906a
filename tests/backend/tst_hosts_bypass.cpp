#include "BackendAccess.h"
#include "FakeHost.h"
#include "LogCapture.h"

#include <QCoreApplication>
#include <QFile>
#include <QTest>

namespace {

const QByteArray Block =
    "# BEGIN TARVEX_VPN_CLIENT\n198.51.100.10\ttarvex.com\n198.51.100.11\ttarvex.com\n"
    "# END TARVEX_VPN_CLIENT\n";

} // namespace

class TestHostsAndBypass : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<FakeHost> host;
    std::unique_ptr<MacVpnBackend> backend;

    void write(const QByteArray &text)
    {
        QFile file(host->hostsFile());
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(text);
    }
    QByteArray read() const
    {
        QFile file(host->hostsFile());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
    }
    void pin(const QStringList &addresses = {"198.51.100.10", "198.51.100.11"})
    {
        backend->pinControlPlaneHosts(addresses);
    }

private Q_SLOTS:
    void init()
    {
        QCoreApplication::setOrganizationDomain(QString());
        host = std::make_unique<FakeHost>();
        backend = std::make_unique<MacVpnBackend>(host->environment());
    }
    void cleanup()
    {
        backend.reset();
        host.reset();
    }

    void pinsAfterMissingLineFeed()
    {
        write("127.0.0.1\tlocalhost");
        pin();
        QCOMPARE(read(), "127.0.0.1\tlocalhost\n" + Block);
    }

    void replacesEarlierBlock()
    {
        write("127.0.0.1\tlocalhost\n\n");
        pin();
        pin({"192.0.2.1"});
        QCOMPARE(
            read(),
            QByteArray("127.0.0.1\tlocalhost\n# BEGIN TARVEX_VPN_CLIENT\n192.0.2.1\ttarvex.com\n"
                       "# END TARVEX_VPN_CLIENT\n"));
    }

    void unpinsFileHoldingOnlyBlock()
    {
        write(Block);
        backend->unpinControlPlaneHosts();
        QCOMPARE(read(), QByteArray("\n"));
    }

    void leavesIncompleteBlocksAlone_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("no begin") << QByteArray(
            "127.0.0.1\tlocalhost\n# END TARVEX_VPN_CLIENT\n\n\n\n");
        QTest::newRow("end before begin")
            << QByteArray("# END TARVEX_VPN_CLIENT\nx\n# BEGIN TARVEX_VPN_CLIENT\n\n\n\n");
        QTest::newRow("no end") << QByteArray("# BEGIN TARVEX_VPN_CLIENT\n1.2.3.4\ttarvex.com");
    }

    void leavesIncompleteBlocksAlone()
    {
        QFETCH(QByteArray, text);
        write(text);
        backend->unpinControlPlaneHosts();
        QCOMPARE(read(), text);
    }

    void pinAndUnpinAddsOneLineFeedOnce()
    {
        const QByteArray original = "127.0.0.1\tlocalhost\n::1\tlocalhost\n";
        write(original);
        pin();
        backend->unpinControlPlaneHosts();
        QCOMPARE(read(), original + "\n");
        pin();
        backend->unpinControlPlaneHosts();
        QCOMPARE(read(), original + "\n");
    }

    void collapsesBlankRunsEverywhere()
    {
        write("a\n\n\n\nb\n" + Block + "\n\n\nc\n");
        backend->unpinControlPlaneHosts();
        QCOMPARE(read(), QByteArray("a\n\nb\n\nc\n"));
    }

    void pinsNothingForNoAddresses()
    {
        write("x");
        pin({});
        QCOMPARE(read(), QByteArray("x"));
    }

    void fallsBackToOrganisationDomain()
    {
        QCOMPARE(backend->controlPlaneHost(), QStringLiteral("tarvex.com"));
        QCoreApplication::setOrganizationDomain(QStringLiteral("   "));
        QCOMPARE(backend->controlPlaneHost(), QStringLiteral("tarvex.com"));
        QCoreApplication::setOrganizationDomain(QStringLiteral(" example.org "));
        QCOMPARE(backend->controlPlaneHost(), QStringLiteral("example.org"));
    }

    void warnsWhenFileIsUnusable()
    {
        LogCapture log;
        MacHostEnvironment env = host->environment();
        env.hostsFile = host->path("missing/hosts");
        MacVpnBackend unreadable(env);
        unreadable.pinControlPlaneHosts({"192.0.2.1"});
        QVERIFY(log.contains("[MacVpnBackend] unable to read hosts file"));
        unreadable.unpinControlPlaneHosts(); // silently

        // Readable but refusing to be opened for writing, even by root; left
        // unchanged whatever happens, since the open fails.
        env.hostsFile = QStringLiteral("/sys/kernel/uevent_seqnum");
        if (!QFile::exists(env.hostsFile))
            QSKIP("no read-only sysfs attribute to stand for an unwritable hosts file");
        MacVpnBackend unwritable(env);
        unwritable.pinControlPlaneHosts({"192.0.2.1"});
        QVERIFY(log.contains("[MacVpnBackend] unable to write hosts file"));
    }

    void routesAndPinsEveryIpv4Address()
    {
        host->resolve("tarvex.com", {"198.51.100.10", "2001:db8::10", "198.51.100.11"});
        LogCapture log;
        backend->installControlPlaneBypass("192.168.1.1");
        QCOMPARE(host->calls("route"),
                 (QList<QStringList>{{"-n", "add", "-host", "198.51.100.10", "192.168.1.1"},
                                     {"-n", "add", "-host", "198.51.100.11", "192.168.1.1"}}));
        QCOMPARE(MacVpnBackendAccess::bypassHosts(*backend),
                 (QStringList{"198.51.100.10", "198.51.100.11"}));
        QVERIFY(log.contains("[MacVpnBackend] control-plane bypass \"tarvex.com\" -> "
                             "\"198.51.100.10\" via \"192.168.1.1\""));
        QCOMPARE(log.count("[MacVpnBackend] control-plane bypass \""), 2);
        QVERIFY(read().endsWith(Block));
        QCOMPARE(log.count("[MacVpnBackend] pinned control-plane host"), 1);
    }

    void retriesDuplicatesOnlyAfterFailure()
    {
        host->resolve("tarvex.com", {"198.51.100.10", "198.51.100.10"});
        backend->installControlPlaneBypass("192.168.1.1");
        QCOMPARE(host->calls("route").size(), 1);
        QCOMPARE(MacVpnBackendAccess::bypassHosts(*backend), QStringList{"198.51.100.10"});

        backend->removeControlPlaneBypass();
        host->clearCalls();
        host->setToolFaults({"fail:route -n add -host 198.51.100.10"});
        LogCapture log;
        backend->installControlPlaneBypass("192.168.1.1");
        QCOMPARE(host->calls("route").size(), 2);
        QCOMPARE(log.count("[MacVpnBackend] control-plane route failed \"198.51.100.10\" \"route: "
                           "simulated failure\""),
                 2);
        QVERIFY(MacVpnBackendAccess::bypassHosts(*backend).isEmpty());
        QVERIFY(!read().contains("TARVEX_VPN_CLIENT"));
    }

    void keepsGoingAfterOneFailure()
    {
        host->resolve("tarvex.com", {"198.51.100.10", "198.51.100.11"});
        host->setToolFaults({"fail:route -n add -host 198.51.100.10"});
        backend->installControlPlaneBypass("192.168.1.1");
        QCOMPARE(MacVpnBackendAccess::bypassHosts(*backend), QStringList{"198.51.100.11"});
        QVERIFY(read().contains("198.51.100.11\ttarvex.com\n# END"));
        QVERIFY(!read().contains("198.51.100.10"));
    }

    void emptyGatewayStillUnpins()
    {
        write("127.0.0.1\tlocalhost\n" + Block);
        LogCapture log;
        backend->installControlPlaneBypass(QString());
        QVERIFY(log.contains("[MacVpnBackend] control-plane bypass skipped: empty gateway"));
        QVERIFY(!read().contains("TARVEX_VPN_CLIENT"));
        QVERIFY(host->lookups().isEmpty());
    }

    void reportsResolverFailure()
    {
        LogCapture log;
        backend->installControlPlaneBypass("192.168.1.1");
        QVERIFY(log.contains(
            "[MacVpnBackend] control-plane resolve failed \"tarvex.com\" \"Host not found\""));
        QVERIFY(host->calls("route").isEmpty());
    }

    void removalUnpinsEvenWithoutRoutes()
    {
        write("a\n" + Block);
        backend->removeControlPlaneBypass();
        QCOMPARE(read(), QByteArray("a\n\n"));
        QVERIFY(host->calls("route").isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestHostsAndBypass)
#include "tst_hosts_bypass.moc"
