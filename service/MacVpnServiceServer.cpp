#include "service/MacVpnServiceServer.h"

#include "backend/core/LogMasking.h"
#include "config/ConnectValidator.h"
#include "protocol/VpnServiceProtocol.h"

#include <QCoreApplication>
#include <QDebug>
#include <QFile>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QLocalServer>
#include <QLocalSocket>
#include <QPointer>

#include <unistd.h>

namespace {

constexpr int StaleProbeTimeoutMs = 500;
constexpr int ReplyWriteTimeoutMs = 3000;
// Any local user may write to the socket; nobody may make a root process
// buffer without bound.
constexpr qsizetype MaxRequestBytes = 1024 * 1024;
constexpr int ExitSocketLost = 1;

} // namespace

MacVpnServiceServer::MacVpnServiceServer(QObject *parent)
    : MacVpnServiceServer(VpnServiceProtocol::socketPath(), MacHostEnvironment(), parent)
{
}

MacVpnServiceServer::MacVpnServiceServer(QString socketPath, MacHostEnvironment environment,
                                         QObject *parent)
    : QObject(parent), path(std::move(socketPath)), backend(std::move(environment))
{
    connect(&localServer, &ServiceListener::newConnection, this,
            &MacVpnServiceServer::handleNewConnection);
    // Unreachable, the service would go on holding the host for nobody:
    // better to end in order and let launchd start it afresh.
    connect(&localServer, &ServiceListener::lost, this, [](const QString &reason) {
        qWarning() << "[MacVpnServiceServer] socket lost" << reason;
        QCoreApplication::exit(ExitSocketLost);
    });
}

bool MacVpnServiceServer::start()
{
    QLocalServer::removeServer(path);
    // Whatever an earlier run left on the host is undone before any client
    // can ask for something new.
    if (!backend.recoverHostChanges()) {
        qWarning() << "[MacVpnServiceServer] listen failed" << path << "host journal unavailable";
        return false;
    }
    bool listening = localServer.listen(path);
    if (!listening && localServer.isAddressInUse()) {
        QLocalSocket probe;
        probe.connectToServer(path, QIODevice::ReadWrite);
        if (!probe.waitForConnected(StaleProbeTimeoutMs)) {
            qWarning() << "[MacVpnServiceServer] stale socket detected" << path
                       << probe.errorString();
            QFile::remove(path);
            listening = localServer.listen(path);
        }
    }
    if (!listening) {
        qWarning() << "[MacVpnServiceServer] listen failed" << path << localServer.errorString();
        return false;
    }

    // The client application runs unprivileged; the file mode is what lets it in.
    QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner |
                                    QFileDevice::ReadGroup | QFileDevice::WriteGroup |
                                    QFileDevice::ReadOther | QFileDevice::WriteOther);
    const uint euid = geteuid();
    qInfo() << "[MacVpnServiceServer] listening" << path << "euid=" << euid;
    if (euid != 0)
        qWarning()
            << "[MacVpnServiceServer] service is not running as root; utun creation may fail";
    return true;
}

void MacVpnServiceServer::handleNewConnection()
{
    while (QLocalSocket *socket = localServer.nextPendingConnection()) {
        qInfo() << "[MacVpnServiceServer] client connected";
        connect(socket, &QLocalSocket::readyRead, this,
                [this, socket] { handleReadyRead(socket); });
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
    }
}

void MacVpnServiceServer::handleReadyRead(QLocalSocket *socket)
{
    QByteArray buffer = socket->property("buffer").toByteArray();
    buffer += socket->readAll();
    const qsizetype lineEnd = buffer.indexOf('\n');
    if (lineEnd < 0 && buffer.size() <= MaxRequestBytes) {
        socket->setProperty("buffer", buffer);
        return;
    }

    // One exchange per connection: nothing this client sends later is read.
    disconnect(socket, &QLocalSocket::readyRead, this, nullptr);
    socket->setProperty("buffer", QVariant());
    if (lineEnd < 0) {
        qWarning() << "[MacVpnServiceServer] request too large" << buffer.size();
        writeResponse(socket, statusResponse(false, QStringLiteral("request too large")));
        return;
    }

    const QByteArray line = buffer.left(lineEnd);
    qInfo().noquote() << "[MacVpnServiceServer] request =" << LogMasking::messageLine(line);

    // A connect may serve other clients while it waits for the tunnel; should
    // this client vanish meanwhile, its socket must outlive this call.
    disconnect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
    const QPointer<QLocalSocket> guard(socket);

    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(line, &parseError);
    const QJsonObject response = parseError.error == QJsonParseError::NoError && document.isObject()
                                     ? handleRequest(document.object())
                                     : statusResponse(false, parseError.errorString());
    if (!guard)
        return;
    writeResponse(socket, response);
    if (socket->state() == QLocalSocket::UnconnectedState)
        socket->deleteLater();
    else
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
}

QJsonObject MacVpnServiceServer::handleRequest(const QJsonObject &request)
{
    const QString command = request.value(QLatin1String("command")).toString();
    qInfo() << "[MacVpnServiceServer] command" << command;

    if (command == QLatin1String("status"))
        return statusResponse(true, QString());

    if (command == QLatin1String("disconnect")) {
        backend.disconnectVpn();
        lastPeer = QJsonObject();
        return statusResponse(true, QString());
    }

    if (command == QLatin1String("connect")) {
        // Only reachable while a connect waits, or unwinds after a disconnect
        // cancelled it; a second one must not run inside it.
        if (backend.connectInProgress())
            return statusResponse(false, QStringLiteral("connect already in progress"));

        const ParsedVpnConfig config = VpnServiceProtocol::parsedConfigFromJson(
            request.value(QLatin1String("config")).toObject());
        const QJsonObject peer = request.value(QLatin1String("peer")).toObject();
        // Refused before anything changes: a tunnel already up stays up.
        const QString problem = ConnectValidator::problem(config, peer.toVariantMap());
        if (!problem.isEmpty()) {
            qWarning() << "[MacVpnServiceServer] connect refused" << problem;
            return statusResponse(false, problem);
        }
        static_cast<PlatformVpnBackend &>(backend).connectVpn(config, peer.toVariantMap());
        if (backend.status() == PlatformVpnBackend::Disconnected)
            return statusResponse(false, QStringLiteral("connect cancelled by disconnect"));
        if (backend.status() != PlatformVpnBackend::Connected)
            return statusResponse(false, backend.lastError());
        lastPeer = peer;
        return statusResponse(true, QString());
    }

    return statusResponse(false, QStringLiteral("unknown command"));
}

QJsonObject MacVpnServiceServer::statusResponse(bool ok, const QString &error) const
{
    QJsonObject response{
        {QStringLiteral("ok"), ok},
        {QStringLiteral("status"), VpnServiceProtocol::statusToString(backend.status())},
        {QStringLiteral("error"), error.isEmpty() ? backend.lastError() : error},
    };
    if (backend.status() == PlatformVpnBackend::Connected && !lastPeer.isEmpty())
        response.insert(QStringLiteral("peer"), lastPeer);
    return response;
}

void MacVpnServiceServer::writeResponse(QLocalSocket *socket, const QJsonObject &response)
{
    const QByteArray bytes = VpnServiceProtocol::encodeMessage(response);
    qInfo().noquote() << "[MacVpnServiceServer] response ="
                      << LogMasking::messageLine(bytes.trimmed());
    socket->write(bytes);
    socket->waitForBytesWritten(ReplyWriteTimeoutMs);
    socket->disconnectFromServer();
}
