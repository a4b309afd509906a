#include "service/RefusalLog.h"

#include <QDebug>

RefusalLog::RefusalLog(QObject *parent) : QObject(parent)
{
    timer.setInterval(WindowMs);
    connect(&timer, &QTimer::timeout, this, &RefusalLog::summarise);
}

void RefusalLog::refused(const QString &command, uid_t uid)
{
    const auto found = windows.find(uid);
    if (found != windows.end()) {
        ++found->more[command];
        return;
    }
    qWarning() << "[MacVpnServiceServer] command refused" << command << "uid=" << uid;
    if (windows.size() >= MaxUsers)
        return;
    windows[uid].since.start();
    if (!timer.isActive())
        timer.start();
}

void RefusalLog::summarise()
{
    for (auto it = windows.begin(); it != windows.end();) {
        if (it->since.elapsed() < WindowMs) {
            ++it;
            continue;
        }
        for (auto more = it->more.cbegin(); more != it->more.cend(); ++more)
            qWarning() << "[MacVpnServiceServer]" << more.value() << "more" << more.key()
                       << "commands refused in the last second, uid=" << it.key();
        it = windows.erase(it);
    }
    if (windows.isEmpty())
        timer.stop();
}
