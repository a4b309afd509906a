#pragma once

#include "SimulatedHost.h"

#include "backend/MacHostEnvironment.h"

#include <QHash>
#include <QMutex>
#include <QTemporaryDir>

#include <memory>

// A private, simulated macOS host for one benchmark: the stand-in
// tools under their real names in a temporary directory with their state, a
// hosts file, runtime and journal directories, an application directory for
// the tunnel program, and a scripted resolver. Nothing of the real machine is
// reachable through it.
class FakeHost
{
public:
    FakeHost();
    ~FakeHost();

    MacHostEnvironment environment() const;
    QString path(const QString &relative) const { return dir.filePath(relative); }
    QString hostsFile() const { return path("hosts"); }

    // Puts the tunnel stand-in beside the application as amneziawg-go.
    void installTunnel();
    void setTunnelFaults(const QString &faults);
    void resolve(const QString &name, const QStringList &addresses);
    // Every tool call so far, as a command line.
    QStringList calls() const { return simulated.commandLines(); }

    static QString binary(const QString &name);
    // This process's processor time so far, and its peak resident memory.
    static double cpuMs();
    static long peakKiB();

private:
    QTemporaryDir dir;
    SimulatedHost simulated;
    // The backend looks names up on threads of its own.
    struct Names
    {
        QMutex mutex;
        QHash<QString, QStringList> addresses;
    };
    std::shared_ptr<Names> names;
};
