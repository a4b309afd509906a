#include "service/LogBudget.h"

#include <QDebug>

bool LogBudget::allow()
{
    if (!window.isValid() || window.elapsed() >= 1000) {
        if (suppressed > 0)
            qWarning() << "[MacVpnServiceServer]" << suppressed
                       << "log lines about clients left out";
        window.start();
        used = 0;
        suppressed = 0;
    }
    if (used < LinesPerSecond) {
        ++used;
        return true;
    }
    ++suppressed;
    return false;
}
