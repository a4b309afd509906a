#include "backend/core/ProcessIdentity.h"

#include "backend/core/BootSession.h"

#include <QDir>
#include <QFile>

#include <unistd.h>

#include <vector>

#ifdef Q_OS_MACOS
#include <libproc.h>
#include <sys/proc.h>
#include <sys/proc_info.h>
#include <sys/time.h>
#endif

namespace ProcessIdentity {

#ifdef Q_OS_MACOS

QString of(qint64 pid)
{
    struct proc_bsdinfo info = {};
    if (pid <= 0 ||
        proc_pidinfo(int(pid), PROC_PIDTBSDINFO, 0, &info, sizeof info) != int(sizeof info) ||
        info.pbi_status == SZOMB)
        return QString();
    // The start time is absolute, so it also tells one boot from the next.
    return QStringLiteral("start=%1.%2").arg(info.pbi_start_tvsec).arg(info.pbi_start_tvusec);
}

QList<qint64> orphansOf(const QString &program)
{
    QList<qint64> orphans;
    std::vector<pid_t> pids(size_t(proc_listallpids(nullptr, 0)) + 64);
    const int count = proc_listallpids(pids.data(), int(pids.size() * sizeof(pid_t)));
    for (int i = 0; i < count; ++i) {
        char path[PROC_PIDPATHINFO_MAXSIZE] = {};
        struct proc_bsdinfo info = {};
        if (proc_pidpath(pids[size_t(i)], path, sizeof path) > 0 &&
            QFile::decodeName(path) == program &&
            proc_pidinfo(pids[size_t(i)], PROC_PIDTBSDINFO, 0, &info, sizeof info) ==
                int(sizeof info) &&
            info.pbi_ppid == 1 && info.pbi_status != SZOMB)
            orphans.append(pids[size_t(i)]);
    }
    return orphans;
}

qint64 ageMs(qint64 pid)
{
    struct proc_bsdinfo info = {};
    struct timeval now = {};
    if (proc_pidinfo(int(pid), PROC_PIDTBSDINFO, 0, &info, sizeof info) != int(sizeof info) ||
        ::gettimeofday(&now, nullptr) != 0)
        return -1;
    return (qint64(now.tv_sec) - qint64(info.pbi_start_tvsec)) * 1000 +
           (qint64(now.tv_usec) - qint64(info.pbi_start_tvusec)) / 1000;
}

#else

namespace {

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

QString of(qint64 pid)
{
    if (pid <= 0)
        return QString();
    const QString proc = QStringLiteral("/proc/%1").arg(pid);
    // The command name in parentheses may hold anything; the fields follow the last ')'.
    const QByteArray stat = readAll(proc + QLatin1String("/stat"));
    const qsizetype close = stat.lastIndexOf(')');
    if (close < 0)
        return QString();
    const QList<QByteArray> fields = stat.mid(close + 2).split(' ');
    // state is the first field after the name, starttime the twentieth.
    if (fields.size() < 20 || fields[0] == "Z" || fields[0] == "X")
        return QString();
    return QStringLiteral("boot=%1 start=%2")
        .arg(BootSession::current(), QString::fromLatin1(fields[19]));
}

QList<qint64> orphansOf(const QString &program)
{
    QList<qint64> orphans;
    const QStringList pids = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString &pid : pids) {
        const QString proc = QStringLiteral("/proc/") + pid;
        const QList<QByteArray> arguments = readAll(proc + QLatin1String("/cmdline")).split('\0');
        const QByteArray stat = readAll(proc + QLatin1String("/stat"));
        const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
        const bool started = QFile::symLinkTarget(proc + QLatin1String("/exe")) == program ||
                             QFile::decodeName(arguments.value(1)) == program;
        if (pid.toLongLong() > 1 && started && fields.size() > 2 && fields[1] == "1" &&
            fields[0] != "Z")
            orphans.append(pid.toLongLong());
    }
    return orphans;
}

qint64 ageMs(qint64 pid)
{
    // Both in clock ticks since boot: the start as /proc/PID/stat gives it
    // (the twentieth field after the name), now as /proc/uptime does.
    const QByteArray stat = readAll(QStringLiteral("/proc/%1/stat").arg(pid));
    const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    const QByteArray uptime = readAll(QStringLiteral("/proc/uptime")).split(' ').value(0);
    const double ticks = double(::sysconf(_SC_CLK_TCK));
    if (fields.size() < 20 || uptime.isEmpty() || ticks <= 0)
        return -1;
    return qint64((uptime.toDouble() - fields[19].toDouble() / ticks) * 1000.0);
}

#endif

} // namespace ProcessIdentity
