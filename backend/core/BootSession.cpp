#include "backend/core/BootSession.h"

#include <QFile>

#ifdef Q_OS_MACOS
#include <sys/sysctl.h>
#endif

namespace BootSession {

QString current()
{
#ifdef Q_OS_MACOS
    char uuid[64] = {};
    size_t size = sizeof uuid - 1;
    if (::sysctlbyname("kern.bootsessionuuid", uuid, &size, nullptr, 0) != 0)
        return QString();
    return QString::fromLatin1(uuid).trimmed();
#else
    QFile file(QStringLiteral("/proc/sys/kernel/random/boot_id"));
    return file.open(QIODevice::ReadOnly) ? QString::fromLatin1(file.readAll()).trimmed()
                                          : QString();
#endif
}

} // namespace BootSession
