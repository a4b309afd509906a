#pragma once

#include "SimulatedHost.h"

#include "protocol/VpnServiceProtocol.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QLocalSocket>
#include <QThread>

#include <csignal>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

// Skips the calling test unless it may use the sandboxed host.
#define REQUIRE_SANDBOX()                                                                          \
    do {                                                                                           \
        if (const QString reason = SystemHost::unavailableReason(); !reason.isEmpty())             \
            QSKIP(qPrintable(reason));                                                             \
    } while (false)

// The macOS host as the unmodified daemon sees it inside scripts/sandbox: the
// stand-in tools at /sbin/route and the other real paths, the daemon and the
// tunnel stand-in in /opt/tarvex, the simulated state in StateDir. Outside
// the sandbox, and without root, the tests skip.
class SystemHost : public SimulatedHost
{
public:
    static constexpr const char *InstallDir = "/opt/tarvex";
    static constexpr const char *StateDir = "/var/lib/tarvex-sim";
    static constexpr const char *JournalDir =
        "/Library/Application Support/Tarvex/VpnService/Journal";

    // Empty when the host may be used; otherwise the reason to skip.
    static QString unavailableReason()
    {
        if (::geteuid() != 0)
            return "system tests need root";
        if (!QFile::exists("/.tarvex-sandbox"))
            return "system tests run only inside scripts/sandbox";
        return QString();
    }

    static QString binary(const QString &name)
    {
        return QDir(QCoreApplication::applicationDirPath()).filePath(name);
    }

    SystemHost() : SimulatedHost(StateDir, binary("mactools"))
    {
        Q_ASSERT(unavailableReason().isEmpty());
        QDir(StateDir).removeRecursively();
        link();
        reset();
        QDir().mkpath(InstallDir);
        replaceWithCopy(QString(InstallDir) + "/TarvexVpnService", binary("TarvexVpnService"));
        QFile::remove(QString(InstallDir) + "/amneziawg-go");
        QDir(JournalDir).removeRecursively();
        QFile::remove("/var/run/tarvex-amneziawg"); // a link
        QDir("/var/run/tarvex-amneziawg").removeRecursively();
        QFile::remove(VpnServiceProtocol::socketPath());
        writeHostsFile("127.0.0.1\tlocalhost\n::1\tlocalhost ip6-localhost ip6-loopback\n"
                       "198.51.100.10\ttarvex.com\n");
        static int instances = 0;
        logPath = QString("/tmp/daemon-%1-%2.log")
                      .arg(QCoreApplication::applicationPid())
                      .arg(++instances);
        QFile::remove(logPath);
    }

    // Stopped in order, so that the next test starts without a journal to undo.
    ~SystemHost()
    {
        if (process.state() != QProcess::NotRunning && stopDaemon() < 0) {
            process.kill();
            process.waitForFinished(5000);
        }
    }

    void installTunnel(bool executable = true)
    {
        const QString path = QString(InstallDir) + "/amneziawg-go";
        replaceWithCopy(path, binary("tunnel-standin"));
        QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner |
                                        (executable ? QFile::ExeOwner : QFile::Permissions()));
    }

    // Makes the given tool call, counted from the start of the test, kill the
    // daemon (SIGKILL) before or after it does its work.
    void killDaemonAt(qsizetype call, bool before = false)
    {
        setFaults({QString("kill-%1:%2").arg(before ? "before" : "after").arg(call)});
    }

    // The next start gives the daemon this many descriptors; with a fixed
    // ceiling it cannot raise them, root or not.
    int descriptors = 0;
    bool fixedCeiling = false;

    // Starts the daemon, the tunnel stand-in's faults in its environment, and
    // waits until it has undone what an earlier run left (or, not ready,
    // until its socket answers).
    bool startDaemon(const QString &tunnelFaults = QString(), bool ready = true)
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("MACSIM_STATE_DIR", StateDir);
        env.insert("AWG_STANDIN_FAULTS", tunnelFaults);
        process.setProcessEnvironment(env);
        process.setChildProcessModifier([soft = descriptors, fixed = fixedCeiling] {
            if (soft <= 0)
                return;
            if (fixed)
                ::prctl(PR_CAPBSET_DROP, CAP_SYS_RESOURCE, 0, 0, 0);
            struct rlimit limit = {rlim_t(soft), fixed ? rlim_t(soft) : rlim_t(4096)};
            ::setrlimit(RLIMIT_NOFILE, &limit);
        });
        process.setWorkingDirectory("/");
        process.setStandardOutputFile(logPath, QIODevice::Append);
        process.setStandardErrorFile(logPath, QIODevice::Append);
        const qsizetype readyBefore = daemonLog().count("[MacVpnServiceServer] ready");
        // A killed instance's socket may still take connections for a moment,
        // held by a child it had forked but that had not yet run its program:
        // only a socket file of the new instance's counts.
        const auto socketFile = [] {
            struct stat info = {};
            return ::stat(QFile::encodeName(VpnServiceProtocol::socketPath()).constData(), &info) ==
                           0
                       ? info.st_ino
                       : ino_t(0);
        };
        const ino_t previous = socketFile();
        process.start(QString(InstallDir) + "/TarvexVpnService", QStringList());
        if (!process.waitForStarted(5000))
            return false;
        QElapsedTimer clock;
        clock.start();
        while (clock.elapsed() < 30000) {
            QLocalSocket probe;
            probe.connectToServer(VpnServiceProtocol::socketPath());
            if (ready ? daemonLog().count("[MacVpnServiceServer] ready") > readyBefore
                      : socketFile() != previous && probe.waitForConnected(100))
                return true;
            if (process.waitForFinished(20))
                return false;
        }
        return false;
    }

    bool startWithTunnel(const QString &tunnelFaults = QString())
    {
        installTunnel();
        return startDaemon(tunnelFaults);
    }

    // Sends the signal and waits; returns the exit code, -1 after a crash.
    int stopDaemon(int signalNumber = SIGTERM)
    {
        if (process.state() == QProcess::NotRunning)
            return process.exitCode();
        ::kill(pid_t(process.processId()), signalNumber);
        if (!process.waitForFinished(30000)) {
            process.kill();
            process.waitForFinished(5000);
            return -1;
        }
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

    // Waits for the daemon to end; one still running then is killed. The
    // monitor's look after a connect makes the count of commands vary, so a
    // kill point may come after the last one.
    void waitForKill()
    {
        if (!process.waitForFinished(10000)) {
            ::kill(pid_t(process.processId()), SIGKILL);
            process.waitForFinished(5000);
        }
    }

    QProcess &daemon() { return process; }
    // The daemon's processor time so far.
    qint64 cpuMs() const
    {
        const QList<QByteArray> fields =
            read(QString("/proc/%1/stat").arg(process.processId())).split(')').last().split(' ');
        return (fields.value(12).toLongLong() + fields.value(13).toLongLong()) * 1000 /
               ::sysconf(_SC_CLK_TCK);
    }
    long peakMemoryKiB() const
    {
        const QByteArray status = read(QString("/proc/%1/status").arg(process.processId()));
        const qsizetype at = status.indexOf("VmHWM:");
        return at < 0 ? -1 : status.mid(at + 6, status.indexOf('\n', at) - at - 6).trimmed().split(' ')[0].toLong();
    }
    QString daemonLog() const { return QString::fromUtf8(read(logPath)); }

    QJsonObject request(const QJsonObject &message, int timeoutMs = 60000) const
    {
        const QByteArray line = rawRequest({VpnServiceProtocol::encodeMessage(message)}, timeoutMs);
        return QJsonDocument::fromJson(line.left(line.indexOf('\n'))).object();
    }

    QJsonObject details() const
    {
        return request({{"command", "details"}}).value("details").toObject();
    }

    // Writes the pieces, with pauses between them, and returns what came back
    // up to the first line feed; empty when the daemon ends the exchange.
    QByteArray rawRequest(const QList<QByteArray> &pieces, int timeoutMs = 60000) const
    {
        QLocalSocket socket;
        socket.connectToServer(VpnServiceProtocol::socketPath());
        if (!socket.waitForConnected(5000))
            return QByteArray();
        for (const QByteArray &piece : pieces) {
            socket.write(piece);
            socket.waitForBytesWritten(2000);
            if (pieces.size() > 1)
                QThread::msleep(50);
        }
        QByteArray reply;
        QElapsedTimer clock;
        clock.start();
        while (!reply.contains('\n') && clock.elapsed() < timeoutMs) {
            if (!socket.waitForReadyRead(100) && socket.state() != QLocalSocket::ConnectedState &&
                socket.bytesAvailable() == 0)
                break;
            reply += socket.readAll();
        }
        return reply;
    }

    // The same exchange from a process of that user, with no groups of its
    // own, after so many status requests of that user.
    QJsonObject requestAs(uid_t uid, const QJsonObject &message, int statusFirst = 0) const
    {
        const QString id = QString::number(uid);
        QProcess client;
        client.start("setpriv",
                     {"--reuid", id, "--regid", id, "--clear-groups", "/usr/bin/python3", "-c",
                      "import socket, sys\ndef ask(line):\n"
                      "    s = socket.socket(socket.AF_UNIX)\n    s.connect(sys.argv[1])\n"
                      "    s.sendall(line)\n    return s.makefile().readline()\n"
                      "for _ in range(int(sys.argv[2])):\n"
                      "    ask(b'{\"command\":\"status\"}\\n')\n"
                      "print(ask(sys.stdin.buffer.read()))",
                      VpnServiceProtocol::socketPath(), QString::number(statusFirst)});
        client.write(VpnServiceProtocol::encodeMessage(message));
        client.closeWriteChannel();
        client.waitForFinished(30000);
        return QJsonDocument::fromJson(client.readAllStandardOutput()).object();
    }

    QByteArray pfctl(const QStringList &arguments, const QByteArray &input = QByteArray()) const
    {
        return runTool("/sbin/pfctl", arguments, input);
    }
    // The Mac's IPv4 default route now goes by another gateway on en0.
    void setDefaultGateway(const QString &address) const
    {
        QJsonObject host = state();
        QJsonArray routes = host["routes"].toArray();
        routes[0] = route("inet default -net " + address + " en0");
        host.insert("routes", routes);
        writeState(host);
    }

    QByteArray hostsFile() const { return read("/etc/hosts"); }
    void writeHostsFile(const QByteArray &text)
    {
        QFile file("/etc/hosts");
        if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            file.write(text);
    }

private:
    static void replaceWithCopy(const QString &path, const QString &source)
    {
        QFile::remove(path);
        QFile::copy(source, path);
    }

    QProcess process;
    QString logPath;
};
