#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"
#include "backend/core/PrivateDirectory.h"
#include "backend/core/ProcessIdentity.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QLocalSocket>
#include <QRegularExpression>
#include <QTimer>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int StartTimeoutMs = 5000;
constexpr int NameWaitMs = 5000;
constexpr int StopTimeoutMs = 5000;
// The thread sleeps in the event dispatcher between passes, so a wait that
// never sees a name costs next to no processor time; a change in the runtime
// directory (the name file or the socket appearing) wakes it at once.
constexpr int NamePassIntervalMs = 20;
// The output is kept only as a tail for error messages, and logged only up to
// a budget per connection: a program that floods its output must neither grow
// the service's memory nor fill the disk.
constexpr qsizetype OutputTailChars = 16 * 1024;
constexpr qint64 OutputLogBudget = 256 * 1024;

// The first line of the name file, read only from a regular file of its
// own: never through a link planted in its place.
bool readNameFile(const QString &path, QString *name)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return false;
    struct stat info = {};
    QFile file;
    const bool regular = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
    if (regular &&
        file.open(fd, QIODevice::ReadOnly | QIODevice::Text, QFileDevice::AutoCloseHandle))
        *name = QString::fromLocal8Bit(file.readLine(64)).trimmed();
    else
        ::close(fd);
    return regular;
}

QString socketPathFor(const QString &runtimeDir, const QString &interfaceName)
{
    return QDir(runtimeDir).filePath(interfaceName + QLatin1String(".sock"));
}

} // namespace

// Only beside the service and in the bundle's resources: the working
// directory is "/" for a daemon and anyone's to plant a file in elsewhere.
// The program runs as root, so only a file that only root could have put
// there is taken.
QString MacVpnBackend::findTunnelBinary() const
{
    const QDir appDir(host.applicationDir.isEmpty() ? QCoreApplication::applicationDirPath()
                                                    : host.applicationDir);
    const QStringList candidates = {
        appDir.filePath(TunnelBinaryName),
        appDir.filePath(QStringLiteral("../Resources/%1").arg(TunnelBinaryName)),
    };
    for (const QString &candidate : candidates) {
        qInfo() << "[MacVpnBackend] check tunnel binary" << candidate;
        const QFileInfo info(candidate);
        if (!info.exists() || !info.isFile() || !info.isExecutable())
            continue;
        struct stat file = {};
        if (::stat(QFile::encodeName(candidate).constData(), &file) != 0 ||
            file.st_uid != ::geteuid() || (file.st_mode & 0022) != 0) {
            qWarning() << "[MacVpnBackend] tunnel binary skipped: writable by others" << candidate;
            continue;
        }
        return info.absoluteFilePath();
    }
    return QString();
}

bool MacVpnBackend::startTunnelProcess()
{
    qInfo() << "[MacVpnBackend] startTunnelProcess";
    tunnelOutput.clear();
    tunnelOutputLogged = 0;
    runtimeDir = host.runtimeDir;
    qInfo() << "[MacVpnBackend] runtime dir" << runtimeDir;
    // The tunnel's configuration socket, keys included, lives here.
    QString reason;
    if (!PrivateDirectory::ensure(runtimeDir, &reason)) {
        qWarning() << "[MacVpnBackend] runtime dir refused" << reason;
        setError(tr("Не удалось создать runtime-директорию для VPN"));
        return false;
    }

    const QString nameFile = QDir(runtimeDir).filePath(InterfacePrefix + QLatin1String(".name"));
    QFile::remove(nameFile);

    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("WG_TUN_NAME_FILE"), nameFile);
    tunnelProcess.setProcessEnvironment(environment);
    tunnelProcess.setProgram(findTunnelBinary());
    tunnelProcess.setArguments({QStringLiteral("-f"), QStringLiteral("utun")});
    qInfo() << "[MacVpnBackend] start process" << tunnelProcess.program()
            << tunnelProcess.arguments() << "WG_TUN_NAME_FILE=" << nameFile;

    tunnelProcess.start(QIODevice::ReadWrite);
    if (!tunnelProcess.waitForStarted(StartTimeoutMs)) {
        qWarning() << "[MacVpnBackend] tunnel process failed to start"
                   << tunnelProcess.errorString();
        setError(tr("Не удалось запустить amneziawg-go: %1").arg(tunnelProcess.errorString()));
        return false;
    }
    tunnelPid = tunnelProcess.processId();
    tunnelIdentity = ProcessIdentity::of(tunnelPid);
    tunnelClock.start();
    if (!recordHostChange())
        return false;

    tunnelInterface = waitForTunnelName(nameFile);
    if (connectCancelled) {
        tunnelInterface.clear();
        return false;
    }
    if (!tunnelInterface.isEmpty()) {
        qInfo() << "[MacVpnBackend] tunnel interface" << tunnelInterface;
        return true;
    }

    drainTunnelOutput();
    // Named, but never answering: a tunnel program built for another socket
    // directory, a constant fixed when it is built.
    if (!namedInterface.isEmpty()) {
        const QString expected = socketPathFor(runtimeDir, namedInterface);
        const QString upstream = socketPathFor(host.upstreamSocketDir, namedInterface);
        qWarning() << "[MacVpnBackend] no configuration socket at" << expected << "; at" << upstream
                   << (QFileInfo::exists(upstream) ? "there is one" : "there is none");
        setError(tr("Не удалось создать VPN-интерфейс: %1")
                     .arg(tr("amneziawg-go не открыл сокет настройки %1; он должен быть собран "
                             "с каталогом сокетов %2")
                              .arg(expected, runtimeDir)));
        return false;
    }
    QString detail = tunnelOutput.trimmed();
    if (detail.contains(QLatin1String("operation not permitted"), Qt::CaseInsensitive))
        detail = tr("amneziawg-go не может создать utun-интерфейс без прав администратора. "
                    "Нужен привилегированный daemon/helper.");
    if (detail.isEmpty())
        detail = tr("не удалось получить имя utun-интерфейса");
    qWarning() << "[MacVpnBackend] tunnel interface failed" << detail;
    setError(tr("Не удалось создать VPN-интерфейс: %1").arg(detail));
    return false;
}

QString MacVpnBackend::waitForTunnelName(const QString &nameFilePath)
{
    QElapsedTimer clock;
    clock.start();
    QTimer wakeUp;
    wakeUp.setSingleShot(true);
    const QFileSystemWatcher runtimeWatcher({runtimeDir});
    namedInterface.clear();
    static const QRegularExpression utunName(QStringLiteral("^utun[0-9]{1,4}$"));

    while (tunnelProcess.state() == QProcess::Running && clock.elapsed() < NameWaitMs) {
        // Serve other clients while we wait, sleeping until something happens
        // or the next pass is due.
        wakeUp.start(NamePassIntervalMs);
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
        if (connectCancelled)
            break;

        drainTunnelOutput();

        QString name;
        if (readNameFile(nameFilePath, &name)) {
            qInfo() << "[MacVpnBackend] name file read" << nameFilePath << "ifName=" << name;
            // Anything but a utun of its own would have us address and route
            // through some other interface, Wi-Fi even.
            if (!name.isEmpty() && !utunName.match(name).hasMatch()) {
                qWarning() << "[MacVpnBackend] name file names no utun interface" << name;
                break;
            }
            if (!name.isEmpty()) {
                namedInterface = name;
                const QString socketPath = socketPathFor(runtimeDir, name);
                qInfo() << "[MacVpnBackend] test uapi socket" << socketPath;
                QLocalSocket probe;
                probe.connectToServer(socketPath, QIODevice::ReadWrite);
                if (probe.waitForConnected(100))
                    return name;
                qWarning() << "[MacVpnBackend] test uapi socket failed" << probe.errorString();
            }
        }
    }

    qWarning() << "[MacVpnBackend] waitForTunnelName timeout"
               << "processState=" << tunnelProcess.state()
               << "exitStatus=" << tunnelProcess.exitStatus()
               << "exitCode=" << tunnelProcess.exitCode();
    return QString();
}

void MacVpnBackend::stopTunnelProcess()
{
    if (tunnelProcess.state() != QProcess::NotRunning) {
        stoppingTunnel = true;
        tunnelProcess.terminate();
        if (!tunnelProcess.waitForFinished(StopTimeoutMs)) {
            tunnelProcess.kill();
            tunnelProcess.waitForFinished(StopTimeoutMs);
        }
        stoppingTunnel = false;
    }
    if (tunnelProcess.state() == QProcess::NotRunning) {
        tunnelProgram.clear();
        tunnelPid = 0;
        tunnelIdentity.clear();
    }
}

void MacVpnBackend::watchTunnelProcess()
{
    connect(&tunnelProcess, &QProcess::readyReadStandardOutput, this,
            &MacVpnBackend::drainTunnelOutput);
    connect(&tunnelProcess, &QProcess::readyReadStandardError, this,
            &MacVpnBackend::drainTunnelOutput);
    connect(&tunnelProcess, &QProcess::finished, this, &MacVpnBackend::handleTunnelExit);
}

void MacVpnBackend::drainTunnelOutput()
{
    const auto collect = [this](const QByteArray &bytes, const char *label, bool warning) {
        const QString text = QString::fromUtf8(bytes).trimmed();
        if (text.isEmpty())
            return;
        tunnelOutput += QLatin1Char('\n') + text;
        if (tunnelOutput.size() > OutputTailChars)
            tunnelOutput = tunnelOutput.right(OutputTailChars);
        if (tunnelOutputLogged > OutputLogBudget)
            return;
        tunnelOutputLogged += text.size();
        const QString line = QLatin1String(label) + text;
        if (warning)
            qWarning().noquote() << line;
        else
            qInfo().noquote() << line;
        if (tunnelOutputLogged > OutputLogBudget)
            qWarning() << "[MacVpnBackend] tunnel output no longer logged for this connection";
    };
    collect(tunnelProcess.readAllStandardOutput(), "[MacVpnBackend] tunnel stdout =\n", false);
    collect(tunnelProcess.readAllStandardError(), "[MacVpnBackend] tunnel stderr =\n", true);
}

// A tunnel program that dies while connected leaves routes into a dead utun
// and DNS servers behind a dead tunnel: the Mac would be offline.
void MacVpnBackend::handleTunnelExit()
{
    if (stoppingTunnel || currentStatus != Connected)
        return;
    drainTunnelOutput();
    qWarning() << "[MacVpnBackend] tunnel program exited while connected"
               << "exitStatus=" << tunnelProcess.exitStatus()
               << "exitCode=" << tunnelProcess.exitCode() << "output=" << tunnelOutput.right(2000);
    // The routes and DNS are undone as ever; a block in force stays, without
    // the tunnel, until the user decides.
    cleanup(Block::Keep);
    setError(killSwitchHeld ? killSwitchBlockingMessage()
                            : tr("VPN-туннель прервался: amneziawg-go неожиданно завершился"));
    watchNetwork();
}
