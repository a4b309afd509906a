#include "service/LogBudget.h"

#include <QDebug>

LogBudget::LogBudget(QObject *parent) : QObject(parent)
{
    summary.setSingleShot(true);
    connect(&summary, &QTimer::timeout, this, &LogBudget::summarise);
}

bool LogBudget::allow(qint64 bytes)
{
    bytes += LineBytes;
    if (!window.isValid() || window.elapsed() >= WindowMs) {
        summarise();
        window.start();
    }
    if (used + bytes <= BytesPerSecond) {
        used += bytes;
        return true;
    }
    if (suppressedLines++ == 0)
        summary.start(int(qMax<qint64>(WindowMs - window.elapsed(), 0)));
    suppressedBytes += bytes;
    return false;
}

void LogBudget::summarise()
{
    summary.stop();
    if (suppressedLines > 0)
        qWarning() << "[MacVpnServiceServer]" << suppressedLines << "log lines (" << suppressedBytes
                   << "bytes) about clients left out";
    used = 0;
    suppressedLines = 0;
    suppressedBytes = 0;
}
