#include "backend/core/ProcessIdentity.h"

#include <QFile>

#ifdef Q_OS_MACOS
#include <libproc.h>
#include <sys/proc.h>
#include <sys/proc_info.h>
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
    const QByteArray boot = readAll(QStringLiteral("/proc/sys/kernel/random/boot_id")).trimmed();
    return QStringLiteral("boot=%1 start=%2")
        .arg(QString::fromLatin1(boot), QString::fromLatin1(fields[19]));
}

#endif

} // namespace ProcessIdentity
