#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMetaObject>
#include <QPointer>

#include <functional>

class QLocalSocket;

// What clients' unfinished request lines may make the service hold. One
// line may be large (a connect carrying 50,000 split-tunnel destinations
// runs to about 13 MiB), so each client's first chunk is always taken, and
// what goes beyond it comes out of one budget shared by all. A client that
// finds the budget spent is not read until another's bytes are let go: its
// bytes wait in the kernel, and its deadline runs as ever.
class RequestBuffers
{
public:
    static constexpr qsizetype MaxRequestBytes = 16 * 1024 * 1024;
    static constexpr qsizetype FreeBytes = 64 * 1024;
    static constexpr qsizetype SharedBytes = 32 * 1024 * 1024;

    enum class Outcome { Waiting, Line, TooLarge };

    // Called for a client that was held back, once there is room again.
    explicit RequestBuffers(std::function<void(QLocalSocket *)> resume);
    ~RequestBuffers();
    RequestBuffers(const RequestBuffers &) = delete;
    RequestBuffers &operator=(const RequestBuffers &) = delete;

    // Takes what the socket has to give, within the bounds. On Line, `line`
    // is the request without its line feed; on Line and TooLarge the
    // client's bytes are let go.
    Outcome read(QLocalSocket *socket, QByteArray *line);
    void release(QLocalSocket *socket);
    qsizetype shared() const { return sharedInUse; }

private:
    static qsizetype beyondFree(qsizetype size);

    std::function<void(QLocalSocket *)> resume;
    struct Held
    {
        QByteArray bytes;
        QMetaObject::Connection gone; // the socket's end lets its bytes go
    };
    QHash<QLocalSocket *, Held> buffers;
    QList<QPointer<QLocalSocket>> heldBack;
    qsizetype sharedInUse = 0;
};
