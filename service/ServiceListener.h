#pragma once

#include <QFileSystemWatcher>
#include <QList>
#include <QObject>
#include <QSocketNotifier>
#include <QString>
#include <QTimer>

#include <functional>
#include <memory>
#include <sys/types.h>

class QLocalSocket;

// The service's listening socket. Unlike QLocalServer it keeps listening
// when accepting fails, deletes the socket file on close only while that file
// is still its own, and says so when the file is taken from it.
class ServiceListener : public QObject
{
    Q_OBJECT

public:
    explicit ServiceListener(QObject *parent = nullptr);
    ~ServiceListener() override;

    bool listen(const QString &path);
    // Asked before each connection is taken, and again when descriptors run
    // out: whether there is room for one more (making room if it can). Without
    // room, connections wait in the kernel's queue and are tried again shortly.
    void setAdmission(std::function<bool()> roomForOneMore, std::function<bool()> makeRoom);
    QString errorString() const { return error; }
    QLocalSocket *nextPendingConnection();

Q_SIGNALS:
    void newConnection();
    // The socket file was removed or replaced, or the socket failed: nobody
    // can reach this instance any more.
    void lost(const QString &reason);

private:
    void acceptPending();
    void checkSocketFile();
    void close();

    QString path;
    int fd = -1;
    dev_t device = 0;
    ino_t inode = 0;
    QString error;
    std::unique_ptr<QSocketNotifier> notifier;
    QFileSystemWatcher watcher;
    QTimer retry;
    std::function<bool()> roomForOneMore;
    std::function<bool()> makeRoom;
    QList<QLocalSocket *> pending;
};
