#include "service/ClientConnections.h"

#include <QDebug>
#include <QLocalSocket>

#include "service/LogBudget.h"

#include <algorithm>

ClientConnections::ClientConnections(LogBudget &log, QObject *parent) : QObject(parent), log(log)
{
    timer.setSingleShot(true);
    connect(&timer, &QTimer::timeout, this, &ClientConnections::expire);
}

bool ClientConnections::roomForOneMore()
{
    forget();
    return int(clients.size()) < MaxClients || makeRoom();
}

void ClientConnections::admit(QLocalSocket *socket)
{
    clients.push_back({socket, QDeadlineTimer(RequestDeadlineMs), QDeadlineTimer(GraceMs), true});
    schedule();
}

void ClientConnections::requestReceived(QLocalSocket *socket)
{
    // However long the request takes to serve, a connect above all.
    for (Client &client : clients) {
        if (client.socket == socket) {
            client.waiting = false;
            client.deadline = QDeadlineTimer(QDeadlineTimer::Forever);
        }
    }
    schedule();
}

void ClientConnections::replySent(QLocalSocket *socket)
{
    for (Client &client : clients) {
        if (client.socket == socket)
            client.deadline = QDeadlineTimer(ReplyDeadlineMs);
    }
    schedule();
}

bool ClientConnections::makeRoom()
{
    forget();
    for (Client &client : clients) {
        // Trickling a byte now and then does not make a client any less idle.
        if (client.waiting && client.socket && client.grace.hasExpired()) {
            if (log.allow())
                qWarning() << "[MacVpnServiceServer] client closed to make room";
            client.socket->abort();
            client.socket = nullptr;
            forget();
            return true;
        }
    }
    return false;
}

// Sockets close and are deleted on their own; their entries go here.
void ClientConnections::forget()
{
    clients.erase(std::remove_if(clients.begin(), clients.end(),
                                 [](const Client &client) {
                                     return !client.socket || client.socket->state() ==
                                                                  QLocalSocket::UnconnectedState;
                                 }),
                  clients.end());
}

void ClientConnections::expire()
{
    forget();
    for (Client &client : clients) {
        if (client.socket && client.deadline.hasExpired()) {
            if (log.allow())
                qWarning() << "[MacVpnServiceServer] client timed out"
                           << (client.waiting ? "before its request" : "before taking its reply");
            client.socket->abort();
            client.socket = nullptr;
        }
    }
    forget();
    schedule();
}

void ClientConnections::schedule()
{
    qint64 soonest = -1;
    for (const Client &client : clients) {
        const qint64 left = client.deadline.remainingTime();
        if (left >= 0 && (soonest < 0 || left < soonest))
            soonest = left;
    }
    if (soonest < 0)
        timer.stop();
    else
        timer.start(int(qMax<qint64>(soonest, 0) + 1));
}
