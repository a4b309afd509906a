#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

// The simulated macOS host shared by the stand-in tools, the tunnel stand-in
// and the tests. Its state lives in a directory named by MACSIM_STATE_DIR:
//   host.json   routes, interfaces and network services (compared byte for byte)
//   counters.json  DNS cache flushes and mDNSResponder reloads
//   calls.log   one JSON array per tool invocation
//   faults      optional fault rules, one per line (also taken from MACSIM_FAULTS)
namespace SimHost {

QString stateDir();

// Holds the state directory's lock for its lifetime; tools and the tunnel
// stand-in may run side by side.
class Lock
{
public:
    explicit Lock(const QString &dir);
    ~Lock();
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;

private:
    int fd = -1;
};

// Reads host.json, dropping interfaces whose owning process is gone together
// with the routes through them, as the kernel does when a utun closes.
QJsonObject load(const QString &dir);
void save(const QString &dir, const QJsonObject &host);
QByteArray serialise(const QJsonObject &host);

QJsonObject defaultHost();
void reset(const QString &dir, const QJsonObject &host = defaultHost());

int counter(const QString &dir, const QString &name);
void increment(const QString &dir, const QString &name);

void logCall(const QString &dir, const QStringList &argv);
QList<QStringList> calls(const QString &dir);

// A rule is "ACTION:PREFIX" where PREFIX is matched against the command line
// (tool name and arguments joined by single spaces) and ACTION is one of
// fail, hang or garble.
QString faultFor(const QString &dir, const QString &commandLine);

// "kill-before:N" and "kill-after:N" in the faults file make the N-th tool
// call of the run kill its caller (the service) with SIGKILL, before or after
// doing its work: "before", "after" or empty.
QString killPoint(const QString &dir, int callNumber);

} // namespace SimHost
