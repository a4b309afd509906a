#include "LogCapture.h"

#include <QMutexLocker>

namespace {
LogCapture *active = nullptr;
}

LogCapture::LogCapture()
{
    active = this;
    previous = qInstallMessageHandler(&LogCapture::handler);
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(previous);
    active = nullptr;
}

void LogCapture::handler(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    // Qt Test's own messages (QSKIP, QWARN, failures) still reach the console.
    if (!active || context.category == nullptr || qstrcmp(context.category, "default") != 0 ||
        type == QtFatalMsg) {
        if (active && active->previous)
            active->previous(type, context, message);
        return;
    }
    QMutexLocker lock(&active->mutex);
    active->captured.append(message);
}

QStringList LogCapture::lines() const
{
    QMutexLocker lock(&mutex);
    return captured;
}

int LogCapture::count(const QString &fragment) const
{
    QMutexLocker lock(&mutex);
    int n = 0;
    for (const QString &line : captured)
        n += line.contains(fragment) ? 1 : 0;
    return n;
}

void LogCapture::clear()
{
    QMutexLocker lock(&mutex);
    captured.clear();
}
