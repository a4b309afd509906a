#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"
#include "backend/host/RouteReply.h"

#include <QDebug>

// Newest first: the tunnel's routes, the bypass hosts, then the route to the
// server. One that will not go is kept, with its error, to be tried again.
void MacVpnBackend::removeRoutes()
{
    unpinControlPlaneHosts();
    QList<RouteEntry> removing(installedRoutes.crbegin(), installedRoutes.crend());
    for (auto it = controlPlaneBypassHosts.crbegin(); it != controlPlaneBypassHosts.crend(); ++it)
        removing.append({QStringLiteral("inet"), *it, QStringLiteral("-host"), physicalGateway});
    // A server route that was there before us, or never added, is not ours to delete.
    if (!serverRouteGateway.isEmpty() && !serverHost.isEmpty())
        removing.append(
            {routeFamily(serverHost), serverHost, QStringLiteral("-host"), serverRouteGateway});
    undoRoutes(removing);
    installedRoutes.clear();
    controlPlaneBypassHosts.clear();
    serverRouteGateway.clear();
    serverRouteInterface.clear();
}

bool MacVpnBackend::runRoute(const QStringList &arguments, QString *failure, QString *answer) const
{
    QString output;
    QString error;
    const bool exited = runCommand(host.routeTool, arguments, &output, &error, CommandTimeoutMs);
    const bool change =
        arguments.contains(QLatin1String("add")) || arguments.contains(QLatin1String("delete"));
    *failure = RouteReply::failure(change, exited, output, error);
    if (answer)
        *answer = output;
    if (failure->isEmpty())
        return true;
    if (exited)
        qWarning() << "[MacVpnBackend] route refused" << arguments << *failure;
    return false;
}

RoutingTable MacVpnBackend::readRoutingTable(bool ipv6) const
{
    QString output;
    runCommand(host.netstatTool,
               {QStringLiteral("-rn"), QStringLiteral("-f"),
                ipv6 ? QStringLiteral("inet6") : QStringLiteral("inet")},
               &output, nullptr, CommandTimeoutMs);
    return RoutingTable::parse(output);
}
