// Our configuration-socket client and set transaction against a real peer:
// Debian's wireguard-go, run as root in the sandbox's own network namespace.
#include "BackendAccess.h"
#include "ClientConfig.h"
#include "SystemHost.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QStandardPaths>
#include <QTest>

namespace {

const QString InterfaceName = QStringLiteral("wg-interop");
const QString SocketDir = QStringLiteral("/var/run/wireguard");

QStringList valuesOf(const QString &reply, const QString &key)
{
    QStringList values;
    for (const QString &line : reply.split(QLatin1Char('\n'))) {
        if (line.startsWith(key + QLatin1Char('=')))
            values.append(line.mid(key.size() + 1));
    }
    return values;
}

} // namespace

class TestWireguardInterop : public QObject
{
    Q_OBJECT

private:
    QProcess peer;
    MacHostEnvironment environment;

private Q_SLOTS:
    void initTestCase()
    {
        REQUIRE_SANDBOX();
        const QString program = QStandardPaths::findExecutable(QStringLiteral("wireguard-go"));
        if (program.isEmpty())
            QSKIP("wireguard-go is not installed");
        peer.setProgram(program);
        peer.setArguments({QStringLiteral("-f"), InterfaceName});
        peer.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        peer.start();
        QVERIFY(peer.waitForStarted());
        QElapsedTimer clock;
        clock.start();
        while (!QFileInfo::exists(SocketDir + QStringLiteral("/wg-interop.sock")) &&
               clock.elapsed() < 5000)
            QTest::qWait(20);
        QVERIFY(QFileInfo::exists(SocketDir + QStringLiteral("/wg-interop.sock")));
    }

    void cleanupTestCase()
    {
        if (peer.state() != QProcess::NotRunning) {
            peer.terminate();
            peer.waitForFinished(5000);
        }
    }

    void acceptsPlainWireGuardConfiguration()
    {
        MacVpnBackend backend(environment);
        MacVpnBackendAccess::setRuntimeDir(backend, SocketDir);
        MacVpnBackendAccess::setTunnelInterface(backend, InterfaceName);
        const ParsedVpnConfig config = clientConfig({
            {"Jc", QJsonValue::Null},
            {"Jmin", QJsonValue::Null},
            {"Jmax", QJsonValue::Null},
            {"allowed_ips", QJsonArray{"10.0.0.0/8", "192.168.77.0/24", "fd00::/8"}},
            {"persistent_keep_alive", "25"},
        });

        const QString reply = backend.uapiCommand(backend.uapiSetConfig(config));
        QCOMPARE(backend.uapiErrno(reply), 0);

        const QString listing = backend.uapiCommand(QStringLiteral("get=1"));
        QCOMPARE(backend.uapiErrno(listing), 0);
        QCOMPARE(valuesOf(listing, "public_key"), QStringList{TestKeys::ServerPublicHex});
        QCOMPARE(valuesOf(listing, "preshared_key"), QStringList{TestKeys::PresharedHex});
        QCOMPARE(valuesOf(listing, "endpoint"), QStringList{"203.0.113.5:51820"});
        QCOMPARE(valuesOf(listing, "persistent_keepalive_interval"), QStringList{"25"});
        QStringList allowed = valuesOf(listing, "allowed_ip");
        allowed.sort();
        QCOMPARE(allowed, (QStringList{"10.0.0.0/8", "192.168.77.0/24", "fd00::/8"}));
    }

    void refusesAmneziaKeys()
    {
        MacVpnBackend backend(environment);
        MacVpnBackendAccess::setRuntimeDir(backend, SocketDir);
        MacVpnBackendAccess::setTunnelInterface(backend, InterfaceName);
        const QString reply = backend.uapiCommand(backend.uapiSetConfig(clientConfig()));
        QVERIFY(!reply.isEmpty());
        QVERIFY(backend.uapiErrno(reply) != 0);
    }
};

QTEST_GUILESS_MAIN(TestWireguardInterop)
#include "tst_wireguard_interop.moc"
