#include "service/MacVpnServiceServer.h"

#include "backend/core/LogMasking.h"
#include "backend/core/PrivateDirectory.h"
#include "protocol/PeerCredentials.h"
#include "protocol/VpnServiceProtocol.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QLocalSocket>
#include <QPointer>
#include <QTimer>

#include <unistd.h>

namespace {

// Others reach the socket through it, and only root writes to it.
constexpr mode_t SocketDirectoryMode = 0755;
// Qt reads ahead no more than a chunk for a client; the request buffers
// bound the rest.
constexpr qint64 ReadChunkBytes = RequestBuffers::FreeBytes;
constexpr int ExitSocketLost = 1;
// A peer whose user the kernel cannot tell is nobody.
constexpr uid_t UnknownUser = uid_t(-1);

} // namespace

MacVpnServiceServer::MacVpnServiceServer(QObject *parent)
    : MacVpnServiceServer(VpnServiceProtocol::socketPath(), MacHostEnvironment(), parent)
{
}

MacVpnServiceServer::MacVpnServiceServer(QString socketPath, MacHostEnvironment environment,
                                         QObject *parent)
    : QObject(parent), path(std::move(socketPath)),
      access(environment.consoleOwner, environment.isAdministrator),
      backend(std::move(environment)), clients(clientLog),
      requests([this](QLocalSocket *socket) {
          // Not from inside another client's teardown: on a turn of its own.
          QTimer::singleShot(0, socket, [this, socket] { handleReadyRead(socket); });
      }),
      recovery(backend)
{
    connect(&recovery, &StartupRecovery::finished, this, [this] {
        backend.reportRecovery();
        qInfo() << "[MacVpnServiceServer] ready";
    });
    connect(&localServer, &ServiceListener::newConnection, this,
            &MacVpnServiceServer::handleNewConnection);
    // Unreachable, the service would go on holding the host for nobody:
    // better to end in order and let launchd start it afresh.
    connect(&localServer, &ServiceListener::lost, this, [](const QString &reason) {
        qWarning() << "[MacVpnServiceServer] socket lost" << reason;
        QCoreApplication::exit(ExitSocketLost);
    });
    // Out of descriptors with a queue of clients: the one that has waited
    // longest without a request makes way.
    localServer.setAdmission([this] { return clients.roomForOneMore(); },
                             [this] { return clients.makeRoom(); });
}

bool MacVpnServiceServer::start()
{
    // With always-on, nothing leaves outside the tunnel from the first moment:
    // the block comes before the socket, and before the undo of a crash.
    backend.engageBlockAtStart();
    // Root's own: nobody else may create the socket, or anything in its place.
    QString error;
    if (!PrivateDirectory::ensure(QFileInfo(path).absolutePath(), &error, SocketDirectoryMode)) {
        qWarning() << "[MacVpnServiceServer] listen failed" << path << error;
        return false;
    }
    // Whatever is at the path is a crashed run's or an older instance's,
    // which then ends: the path is taken over.
    if (!QFile::remove(path))
        QDir(path).removeRecursively();
    if (!localServer.listen(path)) {
        qWarning() << "[MacVpnServiceServer] listen failed" << path << localServer.errorString();
        return false;
    }

    const uint euid = geteuid();
    qInfo() << "[MacVpnServiceServer] listening" << path << "euid=" << euid;
    if (euid != 0)
        qWarning()
            << "[MacVpnServiceServer] service is not running as root; utun creation may fail";
    // Whatever an earlier run left on the host is undone before any client
    // can ask for something new; status is answered meanwhile.
    recovery.start();
    return true;
}

void MacVpnServiceServer::handleNewConnection()
{
    while (QLocalSocket *socket = localServer.nextPendingConnection()) {
        if (clientLog.allow())
            qInfo() << "[MacVpnServiceServer] client connected";
        socket->setReadBufferSize(ReadChunkBytes);
        connect(socket, &QLocalSocket::readyRead, this,
                [this, socket] { handleReadyRead(socket); });
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        clients.admit(socket);
        // An honest client has written its line by now: serving it before the
        // next arrival is admitted keeps it from being closed to make room.
        if (socket->state() == QLocalSocket::ConnectedState)
            socket->waitForReadyRead(0);
    }
}

void MacVpnServiceServer::handleReadyRead(QLocalSocket *socket)
{
    // A client held back for room may have been served since its turn was set.
    if (socket->property("served").toBool())
        return;
    QByteArray line;
    const RequestBuffers::Outcome outcome = requests.read(socket, &line);
    if (outcome == RequestBuffers::Outcome::Waiting)
        return;
    socket->setProperty("served", true);

    // One exchange per connection: nothing this client sends later is read.
    disconnect(socket, &QLocalSocket::readyRead, this, nullptr);
    socket->setReadBufferSize(1);
    clients.requestReceived(socket);
    const uid_t caller = PeerCredentials::uid(socket->socketDescriptor()).value_or(UnknownUser);
    if (outcome == RequestBuffers::Outcome::TooLarge) {
        if (clientLog.allow())
            qWarning() << "[MacVpnServiceServer] request too large";
        writeResponse(socket, statusResponse(false, QStringLiteral("request too large"), caller));
        return;
    }

    // A request is logged by its command and size, and no more than the
    // beginning of its text: any local user can send megabytes a time.
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(line, &parseError);
    const QString excerpt = LogMasking::messageExcerpt(line);
    if (clientLog.allow(excerpt.size()))
        qInfo().noquote() << "[MacVpnServiceServer] request"
                          << LogMasking::clientValue(
                                 document.object().value(QLatin1String("command")).toString())
                          << "uid=" << caller << "bytes=" << line.size() << "=" << excerpt;

    // A connect may serve other clients while it waits for the tunnel; should
    // this client vanish meanwhile, its socket must outlive this call.
    disconnect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
    const QPointer<QLocalSocket> guard(socket);

    const QJsonObject response = parseError.error == QJsonParseError::NoError && document.isObject()
                                     ? handleRequest(document.object(), caller)
                                     : statusResponse(false, parseError.errorString(), caller);
    if (!guard)
        return;
    writeResponse(socket, response);
    if (socket->state() == QLocalSocket::UnconnectedState)
        socket->deleteLater();
    else
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
}

QJsonObject MacVpnServiceServer::handleRequest(const QJsonObject &request, uid_t caller)
{
    const QString command = request.value(QLatin1String("command")).toString();

    if (command == QLatin1String("status"))
        return statusResponse(true, QString(), caller);

    // The backend belongs to the recovery until it has finished.
    const bool commanding = command == QLatin1String("connect") ||
                            command == QLatin1String("disconnect") ||
                            command == QLatin1String("alwaysOn");
    if (recovery.inProgress() && (commanding || command == QLatin1String("details"))) {
        if (!commanding)
            return statusResponse(true, QString(), caller);
        QJsonObject response = statusResponse(
            false,
            tr("Служба VPN ещё восстанавливает настройки системы после прошлого запуска; "
               "повторите через несколько секунд"),
            caller);
        response.insert(QStringLiteral("recovering"), true);
        return response;
    }

    // How the tunnel is doing, for anyone: no keys, no connection string.
    if (command == QLatin1String("details")) {
        QJsonObject response = statusResponse(true, QString(), caller);
        response.remove(QStringLiteral("peer"));
        QVariantMap details;
        backend.refreshStatus(&details);
        if (!details.isEmpty())
            response.insert(QStringLiteral("details"), QJsonObject::fromVariantMap(details));
        return response;
    }

    if (commanding && !access.mayCommand(caller)) {
        refusals.refused(command, caller);
        return statusResponse(false, tr("Недостаточно прав для управления VPN"), caller);
    }

    if (command == QLatin1String("alwaysOn"))
        return alwaysOnResponse(request, caller);

    // An undo that failed is kept and tried again; the reply says what is left.
    if (command == QLatin1String("disconnect")) {
        backend.disconnectVpn();
        lastPeer = QJsonObject();
        return statusResponse(backend.status() != PlatformVpnBackend::Error, QString(), caller);
    }

    if (command == QLatin1String("connect")) {
        // Only reachable while a connect waits, or unwinds after a disconnect
        // cancelled it; a second one must not run inside it.
        if (backend.connectInProgress())
            return statusResponse(false, QStringLiteral("connect already in progress"), caller);

        const ParsedVpnConfig config = VpnServiceProtocol::parsedConfigFromJson(
            request.value(QLatin1String("config")).toObject());
        const QJsonObject peer = request.value(QLatin1String("peer")).toObject();
        // Refused before anything changes: a tunnel already up stays up.
        const QString problem = backend.refusal(config, peer.toVariantMap());
        if (!problem.isEmpty()) {
            qWarning() << "[MacVpnServiceServer] connect refused" << problem;
            return statusResponse(false, problem, caller);
        }
        static_cast<PlatformVpnBackend &>(backend).connectVpn(config, peer.toVariantMap());
        if (backend.status() == PlatformVpnBackend::Disconnected)
            return statusResponse(false, QStringLiteral("connect cancelled by disconnect"), caller);
        if (backend.status() != PlatformVpnBackend::Connected)
            return statusResponse(false, backend.lastError(), caller);
        lastPeer = peer;
        lastPeerOwner = caller;
        return statusResponse(true, QString(), caller);
    }

    return statusResponse(false, QStringLiteral("unknown command"), caller);
}

// {"command":"alwaysOn","enabled":true,"allowLan":false} turns it on or off;
// {"command":"alwaysOn","pause":120} opens the network for so many seconds.
QJsonObject MacVpnServiceServer::alwaysOnResponse(const QJsonObject &request, uid_t caller)
{
    const auto invalid = [this, caller](const char *field) {
        return statusResponse(
            false, tr("Недопустимое значение %1 в запросе alwaysOn").arg(QLatin1String(field)),
            caller);
    };
    const QJsonValue enabled = request.value(QLatin1String("enabled"));
    const QJsonValue allowLan = request.value(QLatin1String("allowLan"));
    const QJsonValue pause = request.value(QLatin1String("pause"));
    QString error;
    if (!pause.isUndefined()) {
        const double seconds = pause.toDouble(-1);
        if (!pause.isDouble() || seconds < 1 || seconds > MacVpnBackend::MaxPauseSeconds ||
            seconds != double(int(seconds)) || !enabled.isUndefined() || !allowLan.isUndefined())
            return invalid("pause");
        error = backend.pauseAlwaysOn(int(seconds));
    } else if (!enabled.isBool()) {
        return invalid("enabled");
    } else if (!allowLan.isUndefined() && !allowLan.isBool()) {
        return invalid("allowLan");
    } else if (!backend.setAlwaysOn({enabled.toBool(), allowLan.toBool()})) {
        error = backend.lastError();
    }
    QJsonObject response = statusResponse(error.isEmpty(), error, caller);
    const QVariantMap state = backend.alwaysOnState();
    response.insert(QStringLiteral("alwaysOn"),
                    state.isEmpty() ? QJsonObject{{QStringLiteral("enabled"), false}}
                                    : QJsonObject::fromVariantMap(state));
    return response;
}

QJsonObject MacVpnServiceServer::statusResponse(bool ok, const QString &error, uid_t caller) const
{
    QJsonObject response{
        {QStringLiteral("ok"), ok},
        {QStringLiteral("status"), VpnServiceProtocol::statusToString(backend.status())},
        {QStringLiteral("error"), error.isEmpty() ? backend.lastError() : error},
    };
    // For anyone, while it is on; never while the recovery holds the backend.
    if (!recovery.inProgress()) {
        if (const QVariantMap state = backend.alwaysOnState(); !state.isEmpty())
            response.insert(QStringLiteral("alwaysOn"), QJsonObject::fromVariantMap(state));
    }
    if (backend.status() == PlatformVpnBackend::Connected && !lastPeer.isEmpty() &&
        AccessPolicy::maySeeConnection(caller, lastPeerOwner))
        response.insert(QStringLiteral("peer"), lastPeer);
    return response;
}

// Never waits for the client: one that does not read its reply costs the
// others nothing, and is closed when its time is up.
void MacVpnServiceServer::writeResponse(QLocalSocket *socket, const QJsonObject &response)
{
    const QByteArray bytes = VpnServiceProtocol::encodeMessage(response);
    const QString excerpt = LogMasking::messageExcerpt(bytes.trimmed());
    if (clientLog.allow(excerpt.size()))
        qInfo().noquote() << "[MacVpnServiceServer] response =" << excerpt;
    socket->write(bytes);
    clients.replySent(socket);
    socket->disconnectFromServer();
}
