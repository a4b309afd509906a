#include "service/ResourceLimits.h"

#include <QDebug>

#include <sys/resource.h>

namespace ResourceLimits {

void raiseDescriptorLimit()
{
    struct rlimit limit = {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= rlim_t(Descriptors))
        return;
    const rlim_t before = limit.rlim_cur;
    limit.rlim_cur = rlim_t(Descriptors);
    if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max < limit.rlim_cur)
        limit.rlim_max = limit.rlim_cur; // root may raise the ceiling too
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0)
        qWarning() << "[MacVpnServiceServer] descriptor limit stays at" << qulonglong(before);
    else
        qInfo() << "[MacVpnServiceServer] descriptor limit raised from" << qulonglong(before)
                << "to" << Descriptors;
}

} // namespace ResourceLimits
