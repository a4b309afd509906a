#include "backend/MacVpnBackend.h"
#include "backend/core/LogMasking.h"

#include <QDebug>
#include <QDir>
#include <QElapsedTimer>
#include <QLocalSocket>

namespace {

constexpr int UapiTimeoutMs = 5000;

} // namespace

QString MacVpnBackend::uapiCommand(const QString &payload)
{
    qInfo() << "[MacVpnBackend] uapiCommand"
            << "interface=" << tunnelInterface;
    qInfo().noquote() << QLatin1String("[MacVpnBackend] uapi command payload =\n") +
                             LogMasking::uapiText(payload);

    QLocalSocket socket;
    socket.connectToServer(QDir(runtimeDir).filePath(tunnelInterface + QLatin1String(".sock")),
                           QIODevice::ReadWrite);
    if (!socket.waitForConnected(UapiTimeoutMs)) {
        qWarning() << "[MacVpnBackend] uapi socket connect failed" << socket.errorString();
        return QString();
    }

    QByteArray request = payload.toUtf8();
    while (!request.endsWith("\n\n"))
        request += '\n';
    socket.write(request);
    if (!socket.waitForBytesWritten(UapiTimeoutMs)) {
        qWarning() << "[MacVpnBackend] uapi write failed" << socket.errorString();
        return QString();
    }

    QByteArray buffer;
    QElapsedTimer clock;
    clock.start();
    while (!buffer.contains("\n\n") && clock.elapsed() < UapiTimeoutMs) {
        if (socket.waitForReadyRead(100))
            buffer += socket.readAll();
        else if (socket.state() != QLocalSocket::ConnectedState)
            break; // the peer hung up: nothing more can arrive
    }
    buffer += socket.readAll();

    const QString reply = QString::fromUtf8(buffer).trimmed();
    qInfo() << "[MacVpnBackend] uapiCommand finished"
            << "reply_length=" << reply.size();
    return reply;
}

int MacVpnBackend::uapiErrno(const QString &reply) const
{
    const QStringList lines = reply.split(QLatin1Char('\n'));
    for (const QString &line : lines) {
        const int separator = line.indexOf(QLatin1Char('='));
        if (separator <= 0)
            continue;
        if (QStringView(line).left(separator) == QLatin1String("errno")) {
            bool ok = false;
            const int value = QStringView(line).mid(separator + 1).toInt(&ok, 10);
            return ok ? value : 0;
        }
    }
    return -1;
}
