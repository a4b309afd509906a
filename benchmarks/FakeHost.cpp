#include "FakeHost.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QHostAddress>

#include "backend/routes/RouteKernel.h"

#include <csignal>
#include <sys/resource.h>
#include <unistd.h>

FakeHost::FakeHost()
    : simulated(dir.filePath("state"), binary("mactools")), names(std::make_shared<Names>())
{
    for (const char *sub : {"tools", "state", "app"})
        QDir(dir.path()).mkpath(sub);
    // Children of the service inherit these, which is how the stand-ins find
    // their state and the kernel's socket.
    qputenv("MACSIM_STATE_DIR", path("state").toLocal8Bit());
    qputenv("MACSIM_KERNEL_DIR", path("kernel").toLocal8Bit());
    qunsetenv("AWG_STANDIN_FAULTS");
    simulated.link(path("tools"));
    simulated.reset();
    QFile hosts(hostsFile());
    if (hosts.open(QIODevice::WriteOnly))
        hosts.write("127.0.0.1\tlocalhost\n::1             localhost\n");
}

FakeHost::~FakeHost()
{
    QFile pid(path("state/kernel.pid"));
    if (pid.open(QIODevice::ReadOnly))
        ::kill(pid_t(pid.readAll().toLongLong()), SIGKILL);
}

QString FakeHost::binary(const QString &name)
{
    return QDir(QCoreApplication::applicationDirPath()).filePath(name);
}

double FakeHost::cpuMs()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000.0 +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000.0;
}

long FakeHost::peakKiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray text = status.readAll();
    const qsizetype at = text.indexOf("VmHWM:");
    return at < 0 ? -1 : text.mid(at + 6, text.indexOf('\n', at) - at - 6).trimmed().split(' ')[0].toLong();
}

MacHostEnvironment FakeHost::environment() const
{
    MacHostEnvironment env;
    for (auto [tool, name] : {std::pair{&env.ifconfigTool, "ifconfig"},
                              {&env.networksetupTool, "networksetup"},
                              {&env.dscacheutilTool, "dscacheutil"},
                              {&env.killallTool, "killall"},
                              {&env.pfctlTool, "pfctl"}})
        *tool = path(QString("tools/") + name);
    RouteKernel::attach(&env, path("kernel"));
    env.runtimeDir = path("run");
    env.hostsFile = hostsFile();
    env.journalDir = path("journal");
    env.applicationDir = path("app");
    // Whoever runs the test sits at the console.
    env.consoleOwner = [] { return ::geteuid(); };
    env.isAdministrator = [](uid_t) { return false; };
    env.lookupHost = [names = names](const QString &name) {
        QHostInfo info;
        info.setHostName(name);
        const QMutexLocker locker(&names->mutex);
        for (const QString &address : names->addresses.value(name))
            info.setAddresses(info.addresses() << QHostAddress(address));
        if (info.addresses().isEmpty())
            info.setError(QHostInfo::HostNotFound);
        return info;
    };
    return env;
}

void FakeHost::installTunnel()
{
    const QString target = path("app/amneziawg-go");
    QFile::copy(binary("tunnel-standin"), target);
    QFile::setPermissions(target, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

void FakeHost::setTunnelFaults(const QString &faults)
{
    qputenv("AWG_STANDIN_FAULTS", faults.toLocal8Bit());
}

void FakeHost::resolve(const QString &name, const QStringList &addresses)
{
    const QMutexLocker locker(&names->mutex);
    names->addresses.insert(name, addresses);
}
