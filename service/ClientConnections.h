#pragma once

#include <QDeadlineTimer>
#include <QObject>
#include <QPointer>
#include <QTimer>

#include <deque>

class LogBudget;
class QLocalSocket;

// Bounds what clients can make the service hold. A client has a few seconds
// to deliver its request line and as many to take its reply. At most
// MaxClients connections are held; for a newcomer beyond that, the one that
// has waited longest without completing its line is closed, whether or not
// it has sent some bytes of it, and when none
// can be, the newcomer waits in the kernel's queue. An honest client writes
// its line at once, so it is never the one closed.
class ClientConnections : public QObject
{
public:
    // Honest use is one application and a command-line tool. A flood either
    // stays under the cap, each connection costing a descriptor and a share
    // of the request buffers' bound, or displaces its own oldest members.
    static constexpr int MaxClients = 64;
    static constexpr int RequestDeadlineMs = 5000;
    static constexpr int ReplyDeadlineMs = 5000;
    // A newcomer's request may still be on its way for this long.
    static constexpr int GraceMs = 20;

    explicit ClientConnections(LogBudget &log, QObject *parent = nullptr);

    // Whether one more connection may be taken now, closing one to make room
    // if need be.
    bool roomForOneMore();
    void admit(QLocalSocket *socket);
    // The request line is in: the client is no longer one to close for room.
    void requestReceived(QLocalSocket *socket);
    // The reply is on its way: the client has a while to take it.
    void replySent(QLocalSocket *socket);
    // Closes the connection that has waited longest for its request line;
    // false when there is none to close.
    bool makeRoom();

private:
    struct Client
    {
        QPointer<QLocalSocket> socket;
        QDeadlineTimer deadline;
        QDeadlineTimer grace;
        bool waiting = true; // for its request line
    };

    void forget();
    void expire();
    void schedule();

    LogBudget &log;
    std::deque<Client> clients; // in order of arrival
    QTimer timer;
};
