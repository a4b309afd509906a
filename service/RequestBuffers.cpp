#include "service/RequestBuffers.h"

#include <QLocalSocket>

#include <algorithm>

RequestBuffers::RequestBuffers(std::function<void(QLocalSocket *)> resume)
    : resume(std::move(resume))
{
}

// The sockets may outlive the buffers when the service ends.
RequestBuffers::~RequestBuffers()
{
    for (const Held &held : std::as_const(buffers))
        QObject::disconnect(held.gone);
}

qsizetype RequestBuffers::beyondFree(qsizetype size)
{
    return std::max<qsizetype>(0, size - FreeBytes);
}

RequestBuffers::Outcome RequestBuffers::read(QLocalSocket *socket, QByteArray *line)
{
    if (!buffers.contains(socket))
        buffers[socket].gone = QObject::connect(socket, &QObject::destroyed, socket,
                                                [this, socket] { release(socket); });
    QByteArray &buffer = buffers[socket].bytes;
    const qsizetype before = beyondFree(buffer.size());
    // Its own first chunk, what it holds of the shared budget, and what is left of that.
    const qsizetype mayHold =
        std::min(FreeBytes + before + (SharedBytes - sharedInUse), MaxRequestBytes + 1);
    const qsizetype available = socket->bytesAvailable();
    const qsizetype taken = std::clamp<qsizetype>(mayHold - buffer.size(), 0, available);
    // Left unread, the rest makes Qt stop reading ahead for this client.
    if (taken < available && !heldBack.contains(socket))
        heldBack.append(socket);
    const qsizetype searched = buffer.size(); // a long line is not searched again and again
    buffer += socket->read(taken);
    sharedInUse += beyondFree(buffer.size()) - before;

    const qsizetype lineEnd = buffer.indexOf('\n', searched);
    if (lineEnd >= 0) {
        *line = buffer.left(lineEnd);
        release(socket);
        return Outcome::Line;
    }
    if (buffer.size() > MaxRequestBytes) {
        release(socket);
        return Outcome::TooLarge;
    }
    return Outcome::Waiting;
}

void RequestBuffers::release(QLocalSocket *socket)
{
    const auto it = buffers.constFind(socket);
    if (it == buffers.cend())
        return;
    sharedInUse -= beyondFree(it->bytes.size());
    QObject::disconnect(it->gone);
    buffers.erase(it);
    heldBack.removeAll(socket);
    // Those held back get their turn, in the order they were held.
    const QList<QPointer<QLocalSocket>> waiting = std::exchange(heldBack, {});
    for (const QPointer<QLocalSocket> &client : waiting) {
        if (client)
            resume(client);
    }
}
