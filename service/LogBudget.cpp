#include "service/LogBudget.h"

#include <QDebug>

bool LogBudget::allow(qint64 bytes)
{
    bytes += LineBytes;
    if (!window.isValid() || window.elapsed() >= 1000) {
        if (suppressedLines > 0)
            qWarning() << "[MacVpnServiceServer]" << suppressedLines << "log lines ("
                       << suppressedBytes << "bytes) about clients left out";
        window.start();
        used = 0;
        suppressedLines = 0;
        suppressedBytes = 0;
    }
    if (used + bytes <= BytesPerSecond) {
        used += bytes;
        return true;
    }
    ++suppressedLines;
    suppressedBytes += bytes;
    return false;
}
