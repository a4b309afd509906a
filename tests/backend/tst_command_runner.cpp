#include "FakeHost.h"
#include "LogCapture.h"

#include "backend/MacVpnBackend.h"

#include <QElapsedTimer>
#include <QTest>

// The runner is exercised with ordinary shell one-liners: what matters is how
// it treats start failures, time-outs, exit codes and signals.
class TestCommandRunner : public QObject
{
    Q_OBJECT

private:
    static QStringList sh(const char *script)
    {
        return {QStringLiteral("-c"), QLatin1String(script)};
    }
    const QString shell = QStringLiteral("/bin/sh");

private Q_SLOTS:
    void missingProgram()
    {
        FakeHost host;
        LogCapture log;
        MacVpnBackend backend(host.environment());
        QString out = QStringLiteral("untouched");
        QString err;
        QVERIFY(
            !backend.runCommand(host.path(QStringLiteral("no-such-tool")), {}, &out, &err, 5000));
        QVERIFY(!err.isEmpty());
        QCOMPARE(out, QStringLiteral("untouched"));
        QVERIFY(log.contains(QStringLiteral("[MacVpnBackend] command start failed \"%1\" \"%2\"")
                                 .arg(host.path(QStringLiteral("no-such-tool")), err)));
    }

    void killsAfterTimeoutWithoutReadingOutput()
    {
        FakeHost host;
        LogCapture log;
        MacVpnBackend backend(host.environment());
        QString out = QStringLiteral("untouched");
        QString err;
        QElapsedTimer clock;
        clock.start();
        QVERIFY(!backend.runCommand(shell, sh("echo partial; exec sleep 30"), &out, &err, 300));
        QVERIFY(clock.elapsed() < 3000);
        QCOMPARE(out, QStringLiteral("untouched"));
        QVERIFY(!err.isEmpty());
        QVERIFY(log.contains(QStringLiteral("[MacVpnBackend] command timeout \"/bin/sh\"")));
    }

    void failureDeliversBothOutputs()
    {
        FakeHost host;
        LogCapture log;
        MacVpnBackend backend(host.environment());
        QString out;
        QString err;
        QVERIFY(!backend.runCommand(shell, sh("echo out; echo '  bad thing  ' >&2; exit 1"), &out,
                                    &err, 5000));
        QCOMPARE(out, QStringLiteral("out\n"));
        QCOMPARE(err, QStringLiteral("  bad thing  \n"));
        QVERIFY(log.contains(QStringLiteral("[MacVpnBackend] command finished \"/bin/sh\" "
                                            "exitStatus= QProcess::NormalExit exitCode= 1")));
        QVERIFY(log.contains(QStringLiteral("[MacVpnBackend] command stdout =\nout")));
        QVERIFY(log.contains(QStringLiteral("[MacVpnBackend] command stderr =\nbad thing")));
        QVERIFY(log.contains(QStringLiteral(
            "[MacVpnBackend] command failed \"/bin/sh\" exitCode= 1 stderr= \"bad thing\"")));
    }

    void crashIsFailureEvenWithCodeZero()
    {
        FakeHost host;
        LogCapture log;
        MacVpnBackend backend(host.environment());
        QVERIFY(!backend.runCommand(shell, sh("kill -SEGV $$"), nullptr, nullptr, 5000));
        QVERIFY(log.contains(QStringLiteral("exitStatus= QProcess::CrashExit")));
    }

    void successWithEmptyOutput()
    {
        FakeHost host;
        LogCapture log;
        MacVpnBackend backend(host.environment());
        QString out = QStringLiteral("x");
        QString err = QStringLiteral("y");
        QVERIFY(backend.runCommand(shell, sh("true"), &out, &err, 5000));
        QCOMPARE(out, QString());
        QCOMPARE(err, QString());
        QVERIFY(log.contains(
            QStringLiteral("[MacVpnBackend] runCommand \"/bin/sh\" QList(\"-c\", \"true\")")));
        QVERIFY(log.contains(QStringLiteral("[MacVpnBackend] command stdout =\n")));
        QVERIFY(!log.contains(QStringLiteral("command failed")));
    }
};

QTEST_GUILESS_MAIN(TestCommandRunner)
#include "tst_command_runner.moc"
