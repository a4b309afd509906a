#pragma once

#include "backend/MacHostEnvironment.h"

#include <QHash>
#include <QHostInfo>
#include <QJsonObject>
#include <QMutex>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

// A private, simulated macOS host for one test: the stand-in tools under
// their real names in a temporary directory, their state, a hosts file, a
// runtime directory, an application directory for the tunnel program, and a
// scripted resolver. Nothing of the real machine is reachable through it.
class FakeHost
{
public:
    FakeHost();

    MacHostEnvironment environment() const;

    QString path(const QString &relative) const { return dir.filePath(relative); }
    QString stateDir() const { return path(QStringLiteral("state")); }
    QString hostsFile() const { return path(QStringLiteral("hosts")); }
    QString runtimeDir() const { return path(QStringLiteral("run")); }
    QString appDir() const { return path(QStringLiteral("app")); }

    // Puts the tunnel stand-in beside the application as amneziawg-go.
    void installTunnel(bool executable = true);
    void setTunnelFaults(const QString &faults);
    void setToolFaults(const QStringList &rules);

    void resolve(const QString &name, const QStringList &addresses);
    // Names the backend asked the resolver for, in order.
    QStringList lookups() const;

    QJsonObject state() const;
    QByteArray stateBytes() const;
    QList<QStringList> calls() const;
    QList<QStringList> calls(const QString &tool) const;
    void clearCalls();
    int counter(const QString &name) const;

    static QString binary(const QString &name);

private:
    QTemporaryDir dir;
    // The backend looks names up on threads of its own.
    struct Resolver
    {
        QMutex mutex;
        QHash<QString, QStringList> names;
        QStringList looked;
    };
    std::shared_ptr<Resolver> resolver;
};
