#include "SimHost.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QSaveFile>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace SimHost {

namespace {

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeFile(const QString &path, const QByteArray &bytes)
{
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly)) {
        file.write(bytes);
        file.commit();
    }
}

// A zombie has closed its utun already; nobody may be left to reap it.
bool processAlive(qint64 pid)
{
    if (pid <= 0 || (::kill(static_cast<pid_t>(pid), 0) != 0 && errno != EPERM))
        return false;
    const QByteArray stat = readFile(QStringLiteral("/proc/%1/stat").arg(pid));
    const qsizetype close = stat.lastIndexOf(')');
    return close < 0 || stat.mid(close + 2, 1) != "Z";
}

QJsonObject route(const char *family, const char *destination, const char *type,
                  const char *gateway, const char *interfaceName)
{
    return {{QStringLiteral("family"), QLatin1String(family)},
            {QStringLiteral("destination"), QLatin1String(destination)},
            {QStringLiteral("type"), QLatin1String(type)},
            {QStringLiteral("gateway"), QLatin1String(gateway)},
            {QStringLiteral("interface"), QLatin1String(interfaceName)}};
}

QJsonObject service(const char *name, bool enabled, const QStringList &dns)
{
    return {{QStringLiteral("name"), QLatin1String(name)},
            {QStringLiteral("enabled"), enabled},
            {QStringLiteral("dns"), QJsonArray::fromStringList(dns)}};
}

} // namespace

QString stateDir()
{
    return qEnvironmentVariable("MACSIM_STATE_DIR");
}

Lock::Lock(const QString &dir)
{
    fd = ::open(QFile::encodeName(dir + QStringLiteral("/.lock")).constData(),
                O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd >= 0)
        ::flock(fd, LOCK_EX);
}

Lock::~Lock()
{
    if (fd >= 0)
        ::close(fd);
}

QJsonObject load(const QString &dir)
{
    QJsonObject host =
        QJsonDocument::fromJson(readFile(dir + QStringLiteral("/host.json"))).object();
    QJsonObject interfaces = host.value(QStringLiteral("interfaces")).toObject();
    QStringList gone;
    for (auto it = interfaces.begin(); it != interfaces.end();) {
        const qint64 owner = it.value().toObject().value(QStringLiteral("owner")).toInteger();
        if (owner != 0 && !processAlive(owner)) {
            gone.append(it.key());
            it = interfaces.erase(it);
        } else {
            ++it;
        }
    }
    if (gone.isEmpty())
        return host;
    QJsonArray routes;
    for (const QJsonValue &entry : host.value(QStringLiteral("routes")).toArray()) {
        if (!gone.contains(entry.toObject().value(QStringLiteral("interface")).toString()))
            routes.append(entry);
    }
    host.insert(QStringLiteral("interfaces"), interfaces);
    host.insert(QStringLiteral("routes"), routes);
    save(dir, host);
    return host;
}

QByteArray serialise(const QJsonObject &host)
{
    return QJsonDocument(host).toJson(QJsonDocument::Indented);
}

void save(const QString &dir, const QJsonObject &host)
{
    writeFile(dir + QStringLiteral("/host.json"), serialise(host));
}

QJsonObject defaultHost()
{
    const QJsonArray routes = {
        route("inet", "default", "-net", "192.168.1.1", "en0"),
        route("inet", "127.0.0.1", "-host", "127.0.0.1", "lo0"),
        route("inet", "192.168.1.0/24", "-net", "link#6", "en0"),
        route("inet6", "default", "-net", "fe80::1%en0", "en0"),
    };
    const QJsonObject interfaces = {
        {QStringLiteral("lo0"), QJsonObject{{QStringLiteral("inet"), QStringLiteral("127.0.0.1")},
                                            {QStringLiteral("mtu"), 16384},
                                            {QStringLiteral("up"), true}}},
        {QStringLiteral("en0"),
         QJsonObject{{QStringLiteral("inet"), QStringLiteral("192.168.1.23")},
                     {QStringLiteral("netmask"), QStringLiteral("255.255.255.0")},
                     {QStringLiteral("mtu"), 1500},
                     {QStringLiteral("up"), true}}},
        // macOS keeps a few utun interfaces of its own; a new tunnel gets the next one.
        {QStringLiteral("utun0"),
         QJsonObject{{QStringLiteral("mtu"), 1380}, {QStringLiteral("up"), true}}},
        {QStringLiteral("utun1"),
         QJsonObject{{QStringLiteral("mtu"), 2000}, {QStringLiteral("up"), true}}},
    };
    const QJsonArray services = {
        service("Wi-Fi", true, {QStringLiteral("192.168.1.1")}),
        service("Ethernet", true, {}),
        service("Bluetooth PAN", false, {QStringLiteral("10.9.9.9")}),
        service("Thunderbolt Bridge", true,
                {QStringLiteral("9.9.9.9"), QStringLiteral("149.112.112.112")}),
    };
    return {{QStringLiteral("routes"), routes},
            {QStringLiteral("interfaces"), interfaces},
            {QStringLiteral("services"), services}};
}

void reset(const QString &dir, const QJsonObject &host)
{
    QDir().mkpath(dir);
    save(dir, host);
    QFile::remove(dir + QStringLiteral("/counters.json"));
    QFile::remove(dir + QStringLiteral("/calls.log"));
}

int counter(const QString &dir, const QString &name)
{
    return QJsonDocument::fromJson(readFile(dir + QStringLiteral("/counters.json")))
        .object()
        .value(name)
        .toInt();
}

void increment(const QString &dir, const QString &name)
{
    const QString path = dir + QStringLiteral("/counters.json");
    QJsonObject counters = QJsonDocument::fromJson(readFile(path)).object();
    counters.insert(name, counters.value(name).toInt() + 1);
    writeFile(path, QJsonDocument(counters).toJson());
}

void logCall(const QString &dir, const QStringList &argv)
{
    QFile file(dir + QStringLiteral("/calls.log"));
    if (file.open(QIODevice::Append))
        file.write(QJsonDocument(QJsonArray::fromStringList(argv)).toJson(QJsonDocument::Compact) +
                   '\n');
}

QList<QStringList> calls(const QString &dir)
{
    QList<QStringList> result;
    const QList<QByteArray> lines = readFile(dir + QStringLiteral("/calls.log")).split('\n');
    for (const QByteArray &line : lines) {
        if (line.isEmpty())
            continue;
        QStringList argv;
        for (const QJsonValue &value : QJsonDocument::fromJson(line).array())
            argv.append(value.toString());
        result.append(argv);
    }
    return result;
}

QString killPoint(const QString &dir, int callNumber)
{
    const QStringList rules = QString::fromUtf8(readFile(dir + QStringLiteral("/faults")))
                                  .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString &rule : rules) {
        for (const char *when : {"before", "after"}) {
            if (rule == QStringLiteral("kill-%1:%2").arg(QLatin1String(when)).arg(callNumber))
                return QLatin1String(when);
        }
    }
    return QString();
}

QString faultFor(const QString &dir, const QString &commandLine)
{
    QStringList rules =
        qEnvironmentVariable("MACSIM_FAULTS").split(QLatin1Char(';'), Qt::SkipEmptyParts);
    rules += QString::fromUtf8(readFile(dir + QStringLiteral("/faults")))
                 .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString &rule : std::as_const(rules)) {
        const int colon = rule.indexOf(QLatin1Char(':'));
        if (colon > 0 && commandLine.startsWith(rule.mid(colon + 1).trimmed()))
            return rule.left(colon).trimmed();
    }
    return QString();
}

} // namespace SimHost
