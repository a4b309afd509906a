// The marked block in /etc/hosts: only a complete block of ours is replaced
// or removed, and every other byte of the file stays as it was.
#include "EmptyHost.h"

#include "backend/MacVpnBackend.h"

#include <QFile>
#include <QTest>

#include <sys/stat.h>

namespace {

const QByteArray Block = "# BEGIN TARVEX_VPN_CLIENT\n198.51.100.10\ttarvex.com\n"
                         "198.51.100.11\ttarvex.com\n# END TARVEX_VPN_CLIENT\n";
const QByteArray Begin = "# BEGIN TARVEX_VPN_CLIENT\n";
const QByteArray End = "# END TARVEX_VPN_CLIENT\n";

} // namespace

class TestHostsFile : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void pinAndUnpin_data()
    {
        QTest::addColumn<QByteArray>("original");
        QTest::addColumn<QByteArray>("pinned");
        QTest::addColumn<QByteArray>("unpinned");
        // clang-format off
        QTest::newRow("no final line feed") << QByteArray("127.0.0.1\tlocalhost") << "127.0.0.1\tlocalhost\n" + Block << QByteArray("127.0.0.1\tlocalhost\n\n");
        QTest::newRow("earlier block replaced, blank lines trimmed") << "\n\n127.0.0.1\tlocalhost\n" + Begin + "192.0.2.1\ttarvex.com\n" + End + "\n\n" << "127.0.0.1\tlocalhost\n" + Block << QByteArray("127.0.0.1\tlocalhost\n\n");
        QTest::newRow("only a block") << Block << "\n" + Block << QByteArray("\n\n");
        QTest::newRow("someone else's begin line before user lines") << Begin + "10.0.0.1 printer\n" << Begin + "10.0.0.1 printer\n" + Block << Begin + "10.0.0.1 printer\n\n";
        QTest::newRow("stray end line before the block") << End + "10.0.0.1\tprinter\n" << End + "10.0.0.1\tprinter\n" + Block << End + "10.0.0.1\tprinter\n\n";
        QTest::newRow("markers that are not whole lines") << "x" + Begin + "10.0.0.2\tnas\n" + End.chopped(1) + " x\n" << "x" + Begin + "10.0.0.2\tnas\n" + End.chopped(1) + " x\n" + Block << "x" + Begin + "10.0.0.2\tnas\n" + End.chopped(1) + " x\n\n";
        QTest::newRow("bytes that are not UTF-8") << QByteArray("10.0.0.3\tcaf\xe9\n") << "10.0.0.3\tcaf\xe9\n" + Block << QByteArray("10.0.0.3\tcaf\xe9\n\n");
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
        const auto read = [&file] {
            file.open(QIODevice::ReadOnly);
            const QByteArray bytes = file.readAll();
            file.close();
            return bytes;
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
};

QTEST_GUILESS_MAIN(TestHostsFile)
#include "tst_hosts_file.moc"
