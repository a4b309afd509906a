#pragma once

#include "backend/MacVpnBackend.h"

// Read and set the backend's bookkeeping from tests, where an operation is
// checked on its own rather than through a whole connect.
struct MacVpnBackendAccess
{
    static QString tunnelInterface(const MacVpnBackend &b) { return b.tunnelInterface; }
    static void setTunnelInterface(MacVpnBackend &b, const QString &name)
    {
        b.tunnelInterface = name;
    }
    static void setRuntimeDir(MacVpnBackend &b, const QString &dir) { b.runtimeDir = dir; }
    static QString serverHost(const MacVpnBackend &b) { return b.serverHost; }
    static void setServerHost(MacVpnBackend &b, const QString &host) { b.serverHost = host; }
    static QList<MacVpnBackend::RouteEntry> routes(const MacVpnBackend &b)
    {
        return b.installedRoutes;
    }
    static void setRoutes(MacVpnBackend &b, const QList<MacVpnBackend::RouteEntry> &r)
    {
        b.installedRoutes = r;
    }
    static QStringList bypassHosts(const MacVpnBackend &b) { return b.controlPlaneBypassHosts; }
    static QMap<QString, QStringList> savedDns(const MacVpnBackend &b) { return b.savedDnsServers; }
    static void setSplitTunnel(MacVpnBackend &b, const MacVpnBackend::SplitTunnelSettings &s)
    {
        b.splitTunnel = s;
    }
    static QProcess &tunnelProcess(MacVpnBackend &b) { return b.tunnelProcess; }
};

inline bool operator==(const MacVpnBackend::RouteEntry &a, const MacVpnBackend::RouteEntry &b)
{
    return a.family == b.family && a.destination == b.destination && a.type == b.type;
}

inline char *toString(const MacVpnBackend::RouteEntry &entry)
{
    return qstrdup(QStringLiteral("{%1 %2 %3}")
                       .arg(entry.family, entry.destination, entry.type)
                       .toUtf8()
                       .constData());
}
