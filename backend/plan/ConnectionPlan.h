#pragma once

#include "backend/plan/PeerValues.h"

#include <QHostAddress>
#include <QHostInfo>
#include <QList>
#include <QString>
#include <QStringList>

#include <functional>

// What a connection wants of the host, as a value: computed from the
// configuration, the peer map and what the names stood for, before anything
// is touched. Each room applies its share (backend/*/); a disconnect applies
// none. The tunnel's interface and the network's gateway are the rooms' to
// know when they apply it.
struct ConnectionPlan
{
    struct Route
    {
        QString destination;
        bool intoTunnel = true; // else around it, by the physical gateway
        // The connect's error when it cannot be added; none: it goes without.
        const char *failure = nullptr;
        bool operator==(const Route &other) const;
    };

    QString server;          // the endpoint's one address: a host route around the tunnel
    int port = 0;            // the endpoint's
    QString endpoint;        // address and port, as the tunnel program takes them
    QString address;         // the tunnel interface's IPv4 address
    QList<Route> routes;     // in the order they are added
    QStringList bypass;      // the control-plane host's addresses, around the tunnel and pinned
    bool dnsForAll = true;   // the tunnel's servers on every network service
    QStringList dnsServers;  // as the configuration gives them
    QStringList tunnelDns;   // the tunnel's own servers, which the block lets through
    // The tunnel's own addresses and DNS servers: never routed around it.
    QList<QHostAddress> tunnelOwn;
    struct SplitSummary
    {
        int entries = 0; // as the peer map lists them
        int routes = 0;  // what they became, merged
    } split;

    using Lookup = std::function<QHostInfo(const QString &)>;
    // config: the endpoint already resolved to its one address.
    static ConnectionPlan of(const ParsedVpnConfig &config, const PeerValues::SplitTunnel &split,
                             const QString &controlPlane, const Lookup &lookup);

    // The destinations of the split tunnel's entries; exclusions are IPv4 only.
    static QStringList splitRoutes(const PeerValues::SplitTunnel &split, const Lookup &lookup,
                                   const QList<QHostAddress> &tunnelOwn);
    // One entry's: its range, its name's addresses, or its fallback address.
    static QStringList entryRoutes(const QVariantMap &entry, int mode, const Lookup &lookup,
                                   const QList<QHostAddress> &tunnelOwn);
    // What a resolver of the network the Mac is on may say a name that goes
    // around the tunnel stands for (see BypassFilter).
    static QStringList aroundTunnel(const QString &name, const Lookup &lookup,
                                    const QList<QHostAddress> &tunnelOwn);
};
