#include "backend/tunnel/TunnelProgram.h"

#include "backend/BackendConstants.h"
#include "backend/core/JournalValues.h"
#include "backend/core/LogMasking.h"
#include "backend/core/PrivateDirectory.h"
#include "backend/core/ProcessIdentity.h"
#include "backend/routes/RouteEntry.h"
#include "backend/tunnel/UapiClient.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QLocalSocket>
#include <QRegularExpression>
#include <QThread>
#include <QTimer>

#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int StartTimeoutMs = 5000;
constexpr int NameWaitMs = 5000;
constexpr int StopTimeoutMs = 5000;
constexpr int UapiTimeoutMs = 5000;
// The thread sleeps in the event dispatcher between passes, so a wait that
// never sees a name costs next to no processor time; a change in the runtime
// directory (the name file or the socket appearing) wakes it at once.
constexpr int NamePassIntervalMs = 20;
// The output is kept only as a tail for error messages, and logged only up to
// a budget per connection: a program that floods its output must neither grow
// the service's memory nor fill the disk.
constexpr qsizetype OutputTailChars = 16 * 1024;
constexpr qint64 OutputLogBudget = 256 * 1024;

QString translated(const char *text)
{
    return QCoreApplication::translate("MacVpnBackend", text);
}

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

bool waitUntilGone(qint64 pid, const QString &identity, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (ProcessIdentity::of(pid) == identity) {
        if (clock.elapsed() >= timeoutMs)
            return false;
        QThread::msleep(20);
    }
    return true;
}

} // namespace

TunnelProgram::TunnelProgram(const MacHostEnvironment &host, std::function<bool()> record,
                             QObject *parent)
    : QObject(parent), host(host), saveJournal(std::move(record))
{
    connect(&tunnelProcess, &QProcess::readyReadStandardOutput, this, &TunnelProgram::drainOutput);
    connect(&tunnelProcess, &QProcess::readyReadStandardError, this, &TunnelProgram::drainOutput);
    connect(&tunnelProcess, &QProcess::finished, this, [this] {
        if (stopping)
            return;
        drainOutput();
        Q_EMIT exited();
    });
}

// Only beside the service and in the bundle's resources: the working
// directory is "/" for a daemon and anyone's to plant a file in elsewhere.
// The program runs as root, so only a file that only root could have put
// there is taken.
QString TunnelProgram::find() const
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

// Nothing is changed that could not be recorded first: the program, before
// it starts, then its pid.
QString TunnelProgram::start(const QString &binary, const std::function<bool()> &cancelled)
{
    program = binary;
    if (!saveJournal()) {
        program.clear();
        return QString();
    }
    qInfo() << "[MacVpnBackend] startTunnelProcess";
    tunnelOutput.clear();
    outputLogged = 0;
    runtimeDir = host.runtimeDir;
    qInfo() << "[MacVpnBackend] runtime dir" << runtimeDir;
    // The tunnel's configuration socket, keys included, lives here.
    QString reason;
    if (!PrivateDirectory::ensure(runtimeDir, &reason)) {
        qWarning() << "[MacVpnBackend] runtime dir refused" << reason;
        return translated("Не удалось создать runtime-директорию для VPN");
    }

    const QString nameFile = QDir(runtimeDir).filePath(InterfacePrefix + QLatin1String(".name"));
    QFile::remove(nameFile);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("WG_TUN_NAME_FILE"), nameFile);
    tunnelProcess.setProcessEnvironment(environment);
    tunnelProcess.setProgram(binary);
    tunnelProcess.setArguments({QStringLiteral("-f"), QStringLiteral("utun")});
    qInfo() << "[MacVpnBackend] start process" << tunnelProcess.program()
            << tunnelProcess.arguments() << "WG_TUN_NAME_FILE=" << nameFile;

    tunnelProcess.start(QIODevice::ReadWrite);
    if (!tunnelProcess.waitForStarted(StartTimeoutMs)) {
        qWarning() << "[MacVpnBackend] tunnel process failed to start"
                   << tunnelProcess.errorString();
        return translated("Не удалось запустить amneziawg-go: %1").arg(tunnelProcess.errorString());
    }
    pid = tunnelProcess.processId();
    identity = ProcessIdentity::of(pid);
    clock.start();
    if (!saveJournal())
        return QString();

    tunnelInterface = waitForName(nameFile, cancelled);
    if (cancelled()) {
        tunnelInterface.clear();
        return QString();
    }
    if (!tunnelInterface.isEmpty()) {
        qInfo() << "[MacVpnBackend] tunnel interface" << tunnelInterface;
        return QString();
    }
    return failure();
}

QString TunnelProgram::failure()
{
    drainOutput();
    // Named, but never answering: a tunnel program built for another socket
    // directory, a constant fixed when it is built.
    if (!namedInterface.isEmpty()) {
        const QString expected = socketPathFor(runtimeDir, namedInterface);
        const QString upstream = socketPathFor(host.upstreamSocketDir, namedInterface);
        qWarning() << "[MacVpnBackend] no configuration socket at" << expected << "; at" << upstream
                   << (QFileInfo::exists(upstream) ? "there is one" : "there is none");
        return translated("Не удалось создать VPN-интерфейс: %1")
            .arg(translated("amneziawg-go не открыл сокет настройки %1; он должен быть собран "
                            "с каталогом сокетов %2")
                     .arg(expected, runtimeDir));
    }
    QString detail = tunnelOutput.trimmed();
    if (detail.contains(QLatin1String("operation not permitted"), Qt::CaseInsensitive))
        detail = translated("amneziawg-go не может создать utun-интерфейс без прав администратора. "
                            "Нужен привилегированный daemon/helper.");
    if (detail.isEmpty())
        detail = translated("не удалось получить имя utun-интерфейса");
    qWarning() << "[MacVpnBackend] tunnel interface failed" << detail;
    return translated("Не удалось создать VPN-интерфейс: %1").arg(detail);
}

QString TunnelProgram::waitForName(const QString &nameFile, const std::function<bool()> &cancelled)
{
    QElapsedTimer waited;
    waited.start();
    QTimer wakeUp;
    wakeUp.setSingleShot(true);
    const QFileSystemWatcher runtimeWatcher({runtimeDir});
    namedInterface.clear();
    static const QRegularExpression utunName(QStringLiteral("^utun[0-9]{1,4}$"));

    while (tunnelProcess.state() == QProcess::Running && waited.elapsed() < NameWaitMs) {
        // Serve other clients while we wait, sleeping until something happens
        // or the next pass is due.
        wakeUp.start(NamePassIntervalMs);
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
        if (cancelled())
            break;
        drainOutput();

        QString name;
        if (readNameFile(nameFile, &name)) {
            qInfo() << "[MacVpnBackend] name file read" << nameFile << "ifName=" << name;
            // Anything but a utun of its own would have us address and route
            // through some other interface, Wi-Fi even.
            if (!name.isEmpty() && !utunName.match(name).hasMatch()) {
                qWarning() << "[MacVpnBackend] name file names no utun interface" << name;
                break;
            }
            if (!name.isEmpty()) {
                namedInterface = name;
                const QString path = socketPathFor(runtimeDir, name);
                qInfo() << "[MacVpnBackend] test uapi socket" << path;
                QLocalSocket probe;
                probe.connectToServer(path, QIODevice::ReadWrite);
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

void TunnelProgram::stop()
{
    if (tunnelProcess.state() != QProcess::NotRunning) {
        stopping = true;
        tunnelProcess.terminate();
        if (!tunnelProcess.waitForFinished(StopTimeoutMs)) {
            tunnelProcess.kill();
            tunnelProcess.waitForFinished(StopTimeoutMs);
        }
        stopping = false;
    }
    if (tunnelProcess.state() == QProcess::NotRunning) {
        program.clear();
        pid = 0;
        identity.clear();
    }
}

// Recorded as about to start but with no pid yet, it is the orphan running
// that program.
void TunnelProgram::stopRecorded()
{
    QList<QPair<qint64, QString>> stopping;
    if (pid > 0 && ProcessIdentity::of(pid) == identity)
        stopping.append({pid, identity});
    else if (pid > 0)
        qInfo() << "[MacVpnBackend] tunnel program of the earlier run is gone" << pid;
    else if (!program.isEmpty())
        for (const qint64 orphan : ProcessIdentity::orphansOf(program))
            stopping.append({orphan, ProcessIdentity::of(orphan)});
    for (const auto &[orphan, who] : std::as_const(stopping)) {
        qInfo() << "[MacVpnBackend] stopping tunnel program of the earlier run" << orphan;
        ::kill(pid_t(orphan), SIGTERM);
        if (!waitUntilGone(orphan, who, StopTimeoutMs)) {
            ::kill(pid_t(orphan), SIGKILL);
            waitUntilGone(orphan, who, StopTimeoutMs);
        }
    }
    program.clear();
    pid = 0;
    identity.clear();
    tunnelInterface.clear();
}

// A utun goes away with the program that opened it, and the kernel takes its
// routes with it; a utun of the same number later is someone else's.
bool TunnelProgram::holds(const QString &interfaceName) const
{
    return !interfaceName.isEmpty() && interfaceName == tunnelInterface && pid > 0 &&
           ProcessIdentity::of(pid) == identity;
}

void TunnelProgram::drainOutput()
{
    const auto collect = [this](const QByteArray &bytes, const char *label, bool warning) {
        const QString text = QString::fromUtf8(bytes).trimmed();
        if (text.isEmpty())
            return;
        tunnelOutput += QLatin1Char('\n') + text;
        if (tunnelOutput.size() > OutputTailChars)
            tunnelOutput = tunnelOutput.right(OutputTailChars);
        if (outputLogged > OutputLogBudget)
            return;
        outputLogged += text.size();
        const QString line = QLatin1String(label) + text;
        if (warning)
            qWarning().noquote() << line;
        else
            qInfo().noquote() << line;
        if (outputLogged > OutputLogBudget)
            qWarning() << "[MacVpnBackend] tunnel output no longer logged for this connection";
    };
    collect(tunnelProcess.readAllStandardOutput(), "[MacVpnBackend] tunnel stdout =\n", false);
    collect(tunnelProcess.readAllStandardError(), "[MacVpnBackend] tunnel stderr =\n", true);
}

QString TunnelProgram::exitReport() const
{
    return QStringLiteral("exitCode=%1 output=%2")
        .arg(tunnelProcess.exitCode())
        .arg(tunnelOutput.right(2000));
}

QString TunnelProgram::socketPath() const
{
    return socketPathFor(runtimeDir, tunnelInterface);
}

QString TunnelProgram::command(const QString &payload)
{
    qInfo() << "[MacVpnBackend] uapiCommand"
            << "interface=" << tunnelInterface;
    qInfo().noquote() << QLatin1String("[MacVpnBackend] uapi command payload =\n") +
                             LogMasking::uapiText(payload);
    const UapiClient::Exchange done = UapiClient::exchange(socketPath(), payload, UapiTimeoutMs);
    if (done.failure) {
        qWarning() << "[MacVpnBackend]" << done.failure << done.error;
        return QString();
    }
    qInfo() << "[MacVpnBackend] uapiCommand finished"
            << "reply_length=" << done.reply.size();
    return done.reply;
}

QString TunnelProgram::query(const QString &payload, int timeoutMs) const
{
    return UapiClient::exchange(socketPath(), payload, timeoutMs).reply;
}

void TunnelProgram::write(QJsonObject *session, QJsonObject *) const
{
    if (!program.isEmpty())
        session->insert(QStringLiteral("tunnel"),
                        QJsonObject{{QStringLiteral("program"), program},
                                    {QStringLiteral("pid"), pid},
                                    {QStringLiteral("identity"), identity},
                                    {QStringLiteral("interface"), tunnelInterface}});
}

// Never a process it did not start: only a program by its absolute path.
void TunnelProgram::read(const QJsonObject &session, const QJsonObject &)
{
    const QJsonObject record = session.value(QLatin1String("tunnel")).toObject();
    const QString recorded = record.value(QLatin1String("program")).toString();
    const QString interfaceName = record.value(QLatin1String("interface")).toString();
    if (record.isEmpty())
        return;
    if (!QFileInfo(recorded).isAbsolute() || !JournalValues::isPrintable(recorded) ||
        !(interfaceName.isEmpty() || RouteEntry::isInterfaceName(interfaceName))) {
        JournalValues::ignored("tunnel", record);
        return;
    }
    program = recorded;
    pid = qMax<qint64>(0, record.value(QLatin1String("pid")).toInteger());
    identity = record.value(QLatin1String("identity")).toString();
    tunnelInterface = interfaceName;
}
