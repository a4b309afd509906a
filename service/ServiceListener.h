#pragma once

#include <QLocalServer>
#include <QString>

#include <sys/types.h>

// The service's listening socket. Qt deletes the socket file when the server
// closes; but a second instance may have taken the path over since, and then
// the file is that instance's and must outlive this one.
class ServiceListener : public QLocalServer
{
public:
    using QLocalServer::QLocalServer;
    ~ServiceListener() override;

    // Notes which file is ours, once listening.
    void rememberSocketFile(const QString &path);

private:
    QString socketFile;
    dev_t device = 0;
    ino_t inode = 0;
};
