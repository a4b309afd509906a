#include "SystemHost.h"

#include "protocol/VpnServiceProtocol.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QLocalSocket>
#include <QThread>

#include <csignal>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace {

constexpr long OverlayMagic = 0x794c7630;

const char *const ToolPaths[] = {"/sbin/route", "/sbin/ifconfig", "/usr/sbin/networksetup",
                                 "/usr/bin/dscacheutil", "/usr/bin/killall"};

bool insideSandbox()
{
    struct statfs root
    {
    };
    return QFile::exists(QStringLiteral("/.tarvex-sandbox")) && ::statfs("/", &root) == 0 &&
           root.f_type == OverlayMagic;
}

void replaceWithLink(const QString &path, const QString &target)
{
    QFile::remove(path);
    QFile::link(target, path);
}

void replaceWithCopy(const QString &path, const QString &source)
{
    QFile::remove(path);
    QFile::copy(source, path);
}

} // namespace

QString SystemHost::unavailableReason()
{
    if (::geteuid() != 0)
        return QStringLiteral("system tests need root");
    if (!insideSandbox())
        return QStringLiteral("system tests run only inside scripts/sandbox");
    return QString();
}

QString SystemHost::binary(const QString &name)
{
    return QDir(QCoreApplication::applicationDirPath()).filePath(name);
}

SystemHost::SystemHost() : SimulatedHost(QLatin1String(StateDir), binary("mactools"))
{
    Q_ASSERT(unavailableReason().isEmpty());
    for (const char *tool : ToolPaths)
        replaceWithLink(QLatin1String(tool), binary("mactools"));
    QDir(StateDir).removeRecursively();
    reset();
    QDir().mkpath(InstallDir);
    replaceWithCopy(QString(InstallDir) + "/TarvexVpnService", binary("TarvexVpnService"));
    QFile::remove(QString(InstallDir) + "/amneziawg-go");
    QDir("/Library/Application Support/Tarvex/VpnService/Journal").removeRecursively();
    QFile::remove("/var/run/tarvex-amneziawg"); // a link
    QDir("/var/run/tarvex-amneziawg").removeRecursively();
    QFile::remove(VpnServiceProtocol::socketPath());
    writeHostsFile("127.0.0.1\tlocalhost\n::1\tlocalhost ip6-localhost ip6-loopback\n"
                   "198.51.100.10\ttarvex.com\n");
    static int instances = 0;
    logPath =
        QString("/tmp/daemon-%1-%2.log").arg(QCoreApplication::applicationPid()).arg(++instances);
    QFile::remove(logPath);
}

// Stopped in order, so that the next test starts without a journal to undo.
SystemHost::~SystemHost()
{
    if (process.state() != QProcess::NotRunning && stopDaemon() < 0) {
        process.kill();
        process.waitForFinished(5000);
    }
}

void SystemHost::installTunnel(bool executable)
{
    const QString path = QString(InstallDir) + "/amneziawg-go";
    replaceWithCopy(path, binary("tunnel-standin"));
    QFile::setPermissions(path, executable ? QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner
                                           : QFile::ReadOwner | QFile::WriteOwner);
}

void SystemHost::killDaemonAt(qsizetype call, bool before)
{
    setFaults({QString("kill-%1:%2").arg(before ? "before" : "after").arg(call)});
}

QByteArray SystemHost::hostsFile() const
{
    QFile file(QStringLiteral("/etc/hosts"));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void SystemHost::writeHostsFile(const QByteArray &text)
{
    QFile file(QStringLiteral("/etc/hosts"));
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(text);
}

bool SystemHost::startDaemon(const QStringList &environment)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("MACSIM_STATE_DIR"), QLatin1String(StateDir));
    for (const QString &assignment : environment)
        env.insert(assignment.section(QLatin1Char('='), 0, 0),
                   assignment.section(QLatin1Char('='), 1));
    process.setProcessEnvironment(env);
    const int soft = descriptors;
    const bool fixed = fixedCeiling;
    process.setChildProcessModifier([soft, fixed] {
        if (soft <= 0)
            return;
        if (fixed)
            ::prctl(PR_CAPBSET_DROP, CAP_SYS_RESOURCE, 0, 0, 0);
        struct rlimit limit = {rlim_t(soft), fixed ? rlim_t(soft) : rlim_t(4096)};
        ::setrlimit(RLIMIT_NOFILE, &limit);
    });
    process.setWorkingDirectory(QStringLiteral("/"));
    process.setStandardOutputFile(logPath, QIODevice::Append);
    process.setStandardErrorFile(logPath, QIODevice::Append);
    process.start(QStringLiteral("%1/TarvexVpnService").arg(QLatin1String(InstallDir)),
                  QStringList());
    if (!process.waitForStarted(5000))
        return false;
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 10000) {
        QLocalSocket probe;
        probe.connectToServer(VpnServiceProtocol::socketPath());
        if (probe.waitForConnected(100))
            return true;
        if (process.waitForFinished(20))
            return false;
    }
    return false;
}

void SystemHost::waitForKill()
{
    if (!process.waitForFinished(10000)) {
        ::kill(pid_t(process.processId()), SIGKILL);
        process.waitForFinished(5000);
    }
}

void SystemHost::limitDescriptors(int soft, bool fixed)
{
    descriptors = soft;
    fixedCeiling = fixed;
}

int SystemHost::stopDaemon(int signalNumber)
{
    if (process.state() == QProcess::NotRunning)
        return process.exitCode();
    ::kill(static_cast<pid_t>(process.processId()), signalNumber);
    if (!process.waitForFinished(30000)) {
        process.kill();
        process.waitForFinished(5000);
        return -1;
    }
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

QString SystemHost::daemonLog() const
{
    QFile file(logPath);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

QByteArray SystemHost::rawRequest(const QList<QByteArray> &pieces, int timeoutMs) const
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

// From a process of that user, with no groups of its own.
QJsonObject SystemHost::requestAs(uid_t uid, const QJsonObject &message) const
{
    const QString id = QString::number(uid);
    QProcess client;
    client.start("setpriv",
                 {"--reuid", id, "--regid", id, "--clear-groups", "/usr/bin/python3", "-c",
                  "import socket, sys\ns = socket.socket(socket.AF_UNIX)\ns.connect(sys.argv[1])\n"
                  "s.sendall(sys.stdin.buffer.read())\nprint(s.makefile().readline())",
                  VpnServiceProtocol::socketPath()});
    client.write(VpnServiceProtocol::encodeMessage(message));
    client.closeWriteChannel();
    client.waitForFinished(30000);
    return QJsonDocument::fromJson(client.readAllStandardOutput()).object();
}

QJsonObject SystemHost::request(const QJsonObject &message, int timeoutMs) const
{
    const QByteArray line = rawRequest({VpnServiceProtocol::encodeMessage(message)}, timeoutMs);
    return QJsonDocument::fromJson(line.left(line.indexOf('\n'))).object();
}
