#include "backend/tunnel/UapiClient.h"

#include <QElapsedTimer>
#include <QLocalSocket>
#include <QStringList>

namespace UapiClient {

namespace {

// A reply lists each allowed range (50,000 at most, some 30 bytes each); the
// tunnel program does not get to fill memory beyond that.
constexpr qsizetype MaxReplyBytes = 8 * 1024 * 1024;

} // namespace

// One request and its reply over a fresh connection to the socket.
Exchange exchange(const QString &socketPath, const QString &payload, int timeoutMs)
{
    QLocalSocket socket;
    socket.connectToServer(socketPath, QIODevice::ReadWrite);
    if (!socket.waitForConnected(timeoutMs)) {
        return {QString(), "uapi socket connect failed", socket.errorString()};
    }

    QByteArray request = payload.toUtf8();
    while (!request.endsWith("\n\n"))
        request += '\n';
    socket.write(request);
    if (!socket.waitForBytesWritten(timeoutMs)) {
        return {QString(), "uapi write failed", socket.errorString()};
    }

    QByteArray buffer;
    QElapsedTimer clock;
    clock.start();
    while (!buffer.contains("\n\n") && clock.elapsed() < timeoutMs &&
           buffer.size() < MaxReplyBytes) {
        if (socket.waitForReadyRead(100))
            buffer += socket.readAll();
        else if (socket.state() != QLocalSocket::ConnectedState)
            break; // the peer hung up: nothing more can arrive
    }
    if (buffer.size() < MaxReplyBytes)
        buffer += socket.readAll();
    return {QString::fromUtf8(buffer).trimmed(), nullptr, QString()};
}

int errnoOf(const QString &reply)
{
    const QStringList lines = reply.split(QLatin1Char('\n'));
    for (const QString &line : lines) {
        const qsizetype separator = line.indexOf(QLatin1Char('='));
        if (separator <= 0)
            continue;
        // An error number that is no number is a broken reply, not a success.
        if (QStringView(line).left(separator) == QLatin1String("errno")) {
            bool ok = false;
            const int value = QStringView(line).mid(separator + 1).toInt(&ok, 10);
            return ok ? value : -1;
        }
    }
    return -1;
}

} // namespace UapiClient
