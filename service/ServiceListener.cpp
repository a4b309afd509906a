#include "service/ServiceListener.h"

#include <QFile>

#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

void ServiceListener::rememberSocketFile(const QString &path)
{
    struct stat info = {};
    if (::lstat(QFile::encodeName(path).constData(), &info) != 0)
        return;
    socketFile = path;
    device = info.st_dev;
    inode = info.st_ino;
}

ServiceListener::~ServiceListener()
{
    const QByteArray file = QFile::encodeName(socketFile);
    struct stat now = {};
    const bool foreign = !socketFile.isEmpty() && ::lstat(file.constData(), &now) == 0 &&
                         (now.st_ino != inode || now.st_dev != device);
    if (!foreign) {
        close();
        return;
    }
    // Keep the newer instance's file out of Qt's reach while we close.
    const QByteArray aside = file + ".closing-" + QByteArray::number(::getpid());
    const bool moved = std::rename(file.constData(), aside.constData()) == 0;
    close();
    if (moved)
        std::rename(aside.constData(), file.constData());
}
