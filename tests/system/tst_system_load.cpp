// 500 concurrent clients of every kind against the unmodified daemon; the
// figures the load tool prints are part of this test's output.
#include "SystemHost.h"

#include <QTest>

#include <cstdio>

class TestSystemLoad : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void servesEveryWellFormedRequest()
    {
        REQUIRE_SANDBOX();
        SystemHost host;
        QVERIFY(host.startDaemon());
        QProcess load;
        load.setProcessChannelMode(QProcess::MergedChannels);
        load.start(SystemHost::binary("load_clients"),
                   {"--clients", "500", "--requests", "20000", "--pid",
                    QString::number(host.daemon().processId())});
        QVERIFY(load.waitForFinished(300000));
        std::fputs(load.readAll().constData(), stdout);
        QCOMPARE(load.exitCode(), 0);
        QCOMPARE(host.stopDaemon(), 0);
    }
};

QTEST_GUILESS_MAIN(TestSystemLoad)
#include "tst_system_load.moc"
