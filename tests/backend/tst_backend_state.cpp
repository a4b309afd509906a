#include "FakeHost.h"
#include "LogCapture.h"

#include "backend/MacVpnBackend.h"

#include <QSignalSpy>
#include <QTest>

namespace {

// Provides only the one-argument connect, to check the interface's default
// two-argument form.
class ConfigOnlyBackend : public PlatformVpnBackend
{
public:
    Status status() const override { return Disconnected; }
    QString lastError() const override { return QString(); }
    void connectVpn(const ParsedVpnConfig &config) override { received = config.hostName; }
    using PlatformVpnBackend::connectVpn;
    void disconnectVpn() override {}
    QString received;
};

} // namespace

class TestBackendState : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void interfaceDefaults()
    {
        ConfigOnlyBackend backend;
        ParsedVpnConfig config;
        config.hostName = QStringLiteral("203.0.113.5");
        static_cast<PlatformVpnBackend &>(backend).connectVpn(
            config, QVariantMap{{QStringLiteral("config"), QStringLiteral("ignored")}});
        QCOMPARE(backend.received, QStringLiteral("203.0.113.5"));

        QVariantMap details{{QStringLiteral("stale"), 1}};
        QVERIFY(backend.refreshStatus(&details));
        QVERIFY(details.isEmpty());
        QVERIFY(backend.refreshStatus(nullptr));
    }

    void statusIsRegisteredWithQt()
    {
        QCOMPARE(QMetaType::fromType<PlatformVpnBackend::Status>().name(),
                 QByteArray("PlatformVpnBackend::Status"));
        const QMetaObject &meta = PlatformVpnBackend::staticMetaObject;
        const int first = meta.methodOffset();
        QCOMPARE(meta.method(first).name(), QByteArray("connected"));
        QCOMPARE(meta.method(first + 1).name(), QByteArray("disconnected"));
        QCOMPARE(meta.method(first + 2).name(), QByteArray("errorOccurred"));
        QCOMPARE(meta.method(first + 3).name(), QByteArray("statusChanged"));
    }

    void statusChangesAreSignalledOnce()
    {
        FakeHost host;
        LogCapture log;
        MacVpnBackend backend(host.environment());
        QSignalSpy changed(&backend, &PlatformVpnBackend::statusChanged);

        backend.setStatus(PlatformVpnBackend::Disconnected);
        QCOMPARE(changed.count(), 0);
        QVERIFY(!log.contains(QStringLiteral("status changed")));

        backend.setStatus(PlatformVpnBackend::Connecting);
        QCOMPARE(changed.count(), 1);
        QCOMPARE(changed.at(0).at(0).value<PlatformVpnBackend::Status>(),
                 PlatformVpnBackend::Connecting);
        QCOMPARE(backend.status(), PlatformVpnBackend::Connecting);
        QVERIFY(log.contains(
            QStringLiteral("[MacVpnBackend] status changed PlatformVpnBackend::Connecting")));
    }

    void errorsMoveToErrorStatus()
    {
        FakeHost host;
        LogCapture log;
        MacVpnBackend backend(host.environment());
        QSignalSpy changed(&backend, &PlatformVpnBackend::statusChanged);
        QSignalSpy errors(&backend, &PlatformVpnBackend::errorOccurred);

        backend.setError(QStringLiteral("первая ошибка"));
        backend.setError(QStringLiteral("вторая ошибка"));
        QCOMPARE(changed.count(), 1);
        QCOMPARE(errors.count(), 2);
        QCOMPARE(errors.at(1).at(0).toString(), QStringLiteral("вторая ошибка"));
        QCOMPARE(backend.status(), PlatformVpnBackend::Error);
        QCOMPARE(backend.lastError(), QStringLiteral("вторая ошибка"));
        QCOMPARE(log.count(QStringLiteral("[MacVpnBackend] error: \"")), 2);

        // Clearing keeps the status and says nothing.
        log.clear();
        backend.setError(QString());
        QCOMPARE(backend.lastError(), QString());
        QCOMPARE(backend.status(), PlatformVpnBackend::Error);
        QCOMPARE(changed.count(), 1);
        QCOMPARE(errors.count(), 2);
        QVERIFY(log.lines().isEmpty());
    }

    void destructionCleansUpOnce()
    {
        FakeHost host;
        LogCapture log;
        {
            MacVpnBackend backend(host.environment());
            QCOMPARE(backend.status(), PlatformVpnBackend::Disconnected);
        }
        QCOMPARE(log.count(QStringLiteral("[MacVpnBackend] cleanup")), 1);
        // The clean-up still flushes the DNS caches, through the host's tools.
        QCOMPARE(host.counter(QStringLiteral("flushcache")), 1);
        QCOMPARE(host.counter(QStringLiteral("mDNSResponderHUP")), 1);
    }
};

QTEST_GUILESS_MAIN(TestBackendState)
#include "tst_backend_state.moc"
