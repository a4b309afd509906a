#include "FakeHost.h"

#include "SimHost.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QHostAddress>

#include <unistd.h>

FakeHost::FakeHost() : resolver(std::make_shared<Resolver>())
{
    for (const char *sub : {"tools", "state", "run", "app"})
        QDir(dir.path()).mkpath(QLatin1String(sub));
    for (const char *tool : {"route", "ifconfig", "networksetup", "dscacheutil", "killall"})
        QFile::link(binary(QStringLiteral("mactools")),
                    path(QStringLiteral("tools/%1").arg(QLatin1String(tool))));
    SimHost::reset(stateDir());
    QFile hosts(hostsFile());
    if (hosts.open(QIODevice::WriteOnly))
        hosts.write(
            "127.0.0.1\tlocalhost\n255.255.255.255\tbroadcasthost\n::1             localhost\n");
    // Children of the service inherit this, which is how the stand-ins find their state.
    qputenv("MACSIM_STATE_DIR", stateDir().toLocal8Bit());
    qunsetenv("MACSIM_FAULTS");
    qunsetenv("AWG_STANDIN_FAULTS");
}

QString FakeHost::binary(const QString &name)
{
    return QDir(QCoreApplication::applicationDirPath()).filePath(name);
}

MacHostEnvironment FakeHost::environment() const
{
    MacHostEnvironment env;
    env.ifconfigTool = path(QStringLiteral("tools/ifconfig"));
    env.routeTool = path(QStringLiteral("tools/route"));
    env.networksetupTool = path(QStringLiteral("tools/networksetup"));
    env.dscacheutilTool = path(QStringLiteral("tools/dscacheutil"));
    env.killallTool = path(QStringLiteral("tools/killall"));
    env.runtimeDir = runtimeDir();
    env.hostsFile = hostsFile();
    env.journalDir = path(QStringLiteral("journal"));
    // Whoever runs the test sits at the console.
    env.consoleOwner = [] { return ::geteuid(); };
    env.isAdministrator = [](uid_t) { return false; };
    env.applicationDir = appDir();
    const auto shared = resolver;
    env.lookupHost = [shared](const QString &name) {
        QHostInfo info;
        info.setHostName(name);
        const QMutexLocker locker(&shared->mutex);
        shared->looked.append(name);
        const auto it = shared->names.constFind(name);
        if (it == shared->names.constEnd()) {
            info.setError(QHostInfo::HostNotFound);
            info.setErrorString(QStringLiteral("Host not found"));
            return info;
        }
        QList<QHostAddress> addresses;
        for (const QString &address : *it)
            addresses.append(QHostAddress(address));
        info.setAddresses(addresses);
        return info;
    };
    return env;
}

void FakeHost::installTunnel(bool executable)
{
    const QString target = QDir(appDir()).filePath(QStringLiteral("amneziawg-go"));
    QFile::remove(target);
    QFile::copy(binary(QStringLiteral("tunnel-standin")), target);
    QFile::Permissions permissions = QFile::ReadOwner | QFile::WriteOwner;
    if (executable)
        permissions |= QFile::ExeOwner;
    QFile::setPermissions(target, permissions);
}

void FakeHost::setTunnelFaults(const QString &faults)
{
    qputenv("AWG_STANDIN_FAULTS", faults.toLocal8Bit());
}

void FakeHost::setToolFaults(const QStringList &rules)
{
    QFile file(path(QStringLiteral("state/faults")));
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(rules.join(QLatin1Char('\n')).toUtf8() + '\n');
}

void FakeHost::resolve(const QString &name, const QStringList &addresses)
{
    const QMutexLocker locker(&resolver->mutex);
    resolver->names.insert(name, addresses);
}

QStringList FakeHost::lookups() const
{
    const QMutexLocker locker(&resolver->mutex);
    return resolver->looked;
}

QJsonObject FakeHost::state() const
{
    SimHost::Lock lock(stateDir());
    return SimHost::load(stateDir());
}

QByteArray FakeHost::stateBytes() const
{
    return SimHost::serialise(state());
}

QList<QStringList> FakeHost::calls() const
{
    return SimHost::calls(stateDir());
}

QList<QStringList> FakeHost::calls(const QString &tool) const
{
    QList<QStringList> matching;
    for (const QStringList &call : calls()) {
        if (call.value(0) == tool)
            matching.append(call.mid(1));
    }
    return matching;
}

void FakeHost::clearCalls()
{
    QFile::remove(path(QStringLiteral("state/calls.log")));
}

int FakeHost::counter(const QString &name) const
{
    return SimHost::counter(stateDir(), name);
}
