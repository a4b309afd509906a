#pragma once

#include "backend/MacHostEnvironment.h"
#include "backend/routes/RouteEntry.h"
#include "backend/routes/RoutingTable.h"

#include <QHash>
#include <QString>

// Routes added and deleted as route(8) does it, one message each on a
// routing socket of our own that nothing is read from, and the table read as
// netstat reads it: in-process, no tool started per route. The kernel's
// refusals are said in route(8)'s words.
class RoutingSocket
{
public:
    explicit RoutingSocket(const MacHostEnvironment &host) : host(host) {}
    ~RoutingSocket();
    RoutingSocket(const RoutingSocket &) = delete;
    RoutingSocket &operator=(const RoutingSocket &) = delete;

    // Empty when done, else why not: "route: writing to routing socket: File
    // exists" (another's route there already), "… not in table" (nothing to
    // delete), "… Network is unreachable" (no way to the gateway).
    QString add(const RouteEntry &route);
    QString remove(const RouteEntry &route);
    static bool isNotInTable(const QString &failure);
    static bool isThereAlready(const QString &failure);
    // False when the table cannot be read.
    bool read(RoutingTable *table);

    // Messages written by this process, for the benchmarks.
    static qint64 written();

private:
    QString write(quint8 type, const RouteEntry &route);
    // 0 for none: an interface new since is looked for again.
    uint indexOf(const QString &interfaceName);

    const MacHostEnvironment &host;
    int writer = -1;
    QHash<QString, uint> indexes; // the interfaces, by name
};
