#pragma once

#include "backend/MacHostEnvironment.h"
#include "backend/core/HostRoom.h"
#include "backend/plan/ConnectionPlan.h"
#include "backend/routes/RouteEntry.h"
#include "backend/routes/RouteMonitor.h"
#include "backend/routes/RoutingSocket.h"
#include "backend/routes/RoutingTable.h"

#include <QJsonObject>
#include <QObject>
#include <QVariantList>

#include <functional>

// The routes of a connection, as one room: the host route to the server and
// those to the control-plane host around the tunnel by the physical gateway,
// the tunnel's own routes into it, and the exclusions around it. Each is
// recorded before it is added; each is undone, newest first, only while it
// is still ours (see routeIsOurs); one that will not go is kept with its
// error and tried again. While connected they follow the Mac from network to
// network (HostRoutesFollow.cpp).
class HostRoutes : public QObject, public HostRoom
{
    Q_OBJECT

public:
    struct Journal
    {
        std::function<bool()> record; // false, with the user told, when it cannot
        std::function<bool()> save;   // the same, logged only
        std::function<bool(const QString &)> tunnelHolds;
    };
    HostRoutes(const MacHostEnvironment &host, Journal journal, QObject *parent = nullptr);

    // The gateway of either family's default route, and the interface it uses.
    QString defaultGatewayOf(bool ipv6, QString *interfaceName = nullptr);

    // False with the user's message (none when the journal told them
    // already). No gateway to go by: nothing to add. A route that was there
    // before ours is not ours.
    bool addServerRoute(const QString &server, QString *error);
    // The ones added: those not added (a route there before ours) are not ours.
    QStringList addBypass(const QStringList &addresses);
    void removeBypass();
    bool addRoutes(const QList<ConnectionPlan::Route> &planned, const QString &tunnel,
                   QString *error);
    // Every route, newest first: the tunnel's and the exclusions, the
    // control-plane hosts', the server's.
    void removeAll();

    // What goes around the tunnel by design, for the block to let through.
    QStringList around() const;
    // What goes into the tunnel, for the block to keep from leaving by another way.
    QStringList through() const;
    QStringList bypassHosts() const { return controlPlaneBypassHosts; }
    // Routes the network put around the tunnel while connected (see ForeignRoutes).
    QStringList foreign() const { return foreignRoutes; }
    QString gateway() const { return physicalGateway; }

    // Following the network (HostRoutesFollow.cpp): watched while wanted.
    void watch(bool watching);
    // The routes around the tunnel by the new way out, or back where a lost
    // link took them; true when the way out changed.
    bool follow(const RouteMonitor::Changes &changes);

    void retryPending() override;
    QVariantList pendingSteps() const override;
    void write(QJsonObject *session, QJsonObject *settings) const override;
    void read(const QJsonObject &session, const QJsonObject &settings) override;

Q_SIGNALS:
    void settled(const RouteMonitor::Changes &changes);

private:
    // The table as read, or none when it could not be.
    std::optional<RoutingTable> readTable();
    bool routeIsOurs(const RouteEntry &route, const RoutingTable &table) const;
    QString undo(const RouteEntry &route, const std::optional<RoutingTable> &table);
    void undo(const QList<RouteEntry> &routes);
    // Each added, or refused with its reason logged (the first few of a list).
    QString add(const RouteEntry &route);
    QList<RouteEntry> aroundTunnel(bool ipv6) const;
    void moveAround(bool ipv6, const RoutingTable::Route &wayOut);
    void restoreMissing(bool ipv6, const RoutingTable &table);
    void noticeForeign(const RoutingTable &table);

    const Journal journal;
    RoutingSocket socket;
    RouteMonitor monitor;
    int refusalsLogged = 0;
    QString tunnelInterface;
    QList<RouteEntry> installedRoutes;
    QString serverHost;
    QString serverRouteGateway; // empty unless the server route is ours
    QString serverRouteInterface;
    QStringList controlPlaneBypassHosts;
    QStringList foreignRoutes;
    QString physicalGateway;
    QString physicalInterface;
    struct Pending
    {
        RouteEntry route;
        QString error;
    };
    QList<Pending> pending;
};
