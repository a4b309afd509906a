#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

// What one invocation of a macOS tool asks for, parsed once and then carried
// out either on the simulated host or, in apply mode, on Linux.
struct Result
{
    int code = 0;
    QString out;
    QString err;
};

inline Result failure(const QString &err, int code = 1, const QString &out = QString())
{
    return {code, out, err};
}

struct RouteCommand
{
    QString command;     // add, delete or get
    QString family;      // inet or inet6
    QString type;        // -net or -host
    QString destination; // as given, host names resolved
    QString gateway;     // an address, or empty with -interface
    QString interfaceName;
    QString word() const { return type.mid(1); }
};

struct IfconfigCommand
{
    QString name;
    QString family; // empty: show; "list": -l
    QString address;
    QString destination;
    QString netmask;
    int mtu = 0;
    bool up = false;
};

// Both return false and fill the result when the arguments are wrong.
bool parseRoute(QStringList args, RouteCommand *command, Result *error);
bool parseIfconfig(QStringList args, IfconfigCommand *command, Result *error);

// Normal form of a destination, so "10.0.0.0/8" and "-host 1.2.3.4" match on delete.
QString canonicalDestination(const QString &destination);

// On the simulated host (SimHost.h), changing it only on success.
Result simulatedRoute(QJsonObject &host, const RouteCommand &command);
Result simulatedIfconfig(QJsonObject &host, const IfconfigCommand &command);
Result simulatedNetworksetup(QJsonObject &host, QStringList args);

// On this Linux network namespace, through ip(8), answering as macOS would.

Result appliedRoute(const RouteCommand &command);
Result appliedIfconfig(const IfconfigCommand &command);

// "route -n monitor", until its reader or its caller goes away.
int routeMonitor(const QString &stateDir);
