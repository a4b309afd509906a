// "route -n monitor": one message per change of the routing table, in the
// layout macOS prints, until the reader goes away.
#include "Commands.h"
#include "SimHost.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QSet>
#include <QThread>

#include <cstdio>
#include <unistd.h>

namespace {

bool print(const char *type, const char *what, const QString &destination, const QString &via)
{
    const QString message =
        QStringLiteral("got message of size 164 on %1\n"
                       "%2: %3: len 164, pid: 0, seq 0, errno 0, flags:<UP,GATEWAY,DONE,STATIC>\n"
                       "locks:  inits: \nsockaddrs: <DST,GATEWAY>\n %4 %5\n\n")
            .arg(QDateTime::currentDateTime().toString(QStringLiteral("ddd MMM d HH:mm:ss yyyy")),
                 QLatin1String(type), QLatin1String(what), destination, via);
    const QByteArray bytes = message.toLocal8Bit();
    return ::write(STDOUT_FILENO, bytes.constData(), size_t(bytes.size())) == bytes.size();
}

QSet<QString> routesOf(const QJsonObject &host)
{
    QSet<QString> routes;
    for (const QJsonValue &route : host.value(QStringLiteral("routes")).toArray())
        routes.insert(
            QString::fromUtf8(QJsonDocument(route.toObject()).toJson(QJsonDocument::Compact)));
    return routes;
}

QString field(const QString &route, const char *name)
{
    return QJsonDocument::fromJson(route.toUtf8()).object().value(QLatin1String(name)).toString();
}

// The simulated table is polled; its changes, the test's own included, are
// reported as the kernel would report them.
int monitorSimulated(const QString &dir)
{
    const pid_t parent = ::getppid();
    QSet<QString> before = [&] {
        SimHost::Lock lock(dir);
        return routesOf(SimHost::load(dir));
    }();
    while (::getppid() == parent) {
        QThread::msleep(100);
        QSet<QString> now;
        {
            SimHost::Lock lock(dir);
            now = routesOf(SimHost::load(dir));
        }
        for (const QString &gone : before - now) {
            if (!print("RTM_DELETE", "Delete Route", field(gone, "destination"),
                       field(gone, "gateway")))
                return 0;
        }
        for (const QString &added : now - before) {
            if (!print("RTM_ADD", "Add Route", field(added, "destination"),
                       field(added, "gateway")))
                return 0;
        }
        before = now;
    }
    return 0;
}

// This network namespace's own table, through ip(8).
int monitorApplied()
{
    QProcess ip;
    ip.start(QStringLiteral("ip"),
             {QStringLiteral("-o"), QStringLiteral("monitor"), QStringLiteral("route")});
    if (!ip.waitForStarted())
        return 1;
    const pid_t parent = ::getppid();
    while (::getppid() == parent && ip.state() == QProcess::Running) {
        if (!ip.waitForReadyRead(500))
            continue;
        while (ip.canReadLine()) {
            const QString line = QString::fromLocal8Bit(ip.readLine()).trimmed();
            const bool deleted = line.startsWith(QLatin1String("Deleted "));
            const QStringList words = line.mid(deleted ? 8 : 0).split(QLatin1Char(' '));
            const qsizetype via = words.indexOf(QStringLiteral("via"));
            const qsizetype dev = words.indexOf(QStringLiteral("dev"));
            const QString gateway = via >= 0 ? words.value(via + 1) : words.value(dev + 1);
            if (!print(deleted ? "RTM_DELETE" : "RTM_ADD", deleted ? "Delete Route" : "Add Route",
                       words.value(0), gateway))
                return 0;
        }
    }
    ip.kill();
    return 0;
}

} // namespace

int routeMonitor(const QString &dir)
{
    return qEnvironmentVariableIsEmpty("MACSIM_APPLY") ? monitorSimulated(dir) : monitorApplied();
}
