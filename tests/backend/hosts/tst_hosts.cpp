// The marked block in /etc/hosts: only a complete block of ours is replaced
// or removed, and every other byte stays as it was.
#include "backend/hosts/HostsBlock.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

namespace {

const QByteArray Block = "# BEGIN TARVEX_VPN_CLIENT\n198.51.100.10\ttarvex.com\n"
                         "198.51.100.11\ttarvex.com\n# END TARVEX_VPN_CLIENT\n";
const QByteArray Begin = "# BEGIN TARVEX_VPN_CLIENT\n";
const QByteArray End = "# END TARVEX_VPN_CLIENT\n";

} // namespace

class TestHosts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
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
        const QString path = dir.filePath("hosts");
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(original);
        file.close();
        ::chmod(QFile::encodeName(path).constData(), 0640);
        HostsBlock block(path);
        const auto read = [&path] {
            QFile file(path);
            return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        };

        // A second and a third connect leave one block, not three.
        for (int cycle = 0; cycle < 3; ++cycle)
            block.pin({"198.51.100.10", "198.51.100.11"});
        QCOMPARE(read(), pinned);
        struct stat info = {};
        QCOMPARE(::stat(QFile::encodeName(path).constData(), &info), 0);
        QCOMPARE(info.st_mode & 07777, mode_t(0640));
        block.unpin();
        QCOMPARE(read(), unpinned);
        block.unpin();
        QCOMPARE(read(), unpinned);
    }
};

QTEST_GUILESS_MAIN(TestHosts)
#include "tst_hosts.moc"
