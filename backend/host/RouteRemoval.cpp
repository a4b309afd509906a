#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"
#include "backend/host/RouteReply.h"

#include <QDebug>

// A route that will not go is kept, with its error, to be tried again.
void MacVpnBackend::removeRoutes()
{
    removeControlPlaneBypass();

    QList<RouteEntry> removing(installedRoutes.crbegin(), installedRoutes.crend());
    // A server route that was there before us, or never added, is not ours to delete.
    if (!serverRouteGateway.isEmpty() && !serverHost.isEmpty())
        removing.append(
            {routeFamily(serverHost), serverHost, QStringLiteral("-host"), serverRouteGateway});
    for (const RouteEntry &route : std::as_const(removing))
        deleteRouteOrKeep(route);
    installedRoutes.clear();
    serverRouteGateway.clear();
    serverRouteInterface.clear();
}

// A route that is not in the table any more is as good as deleted.
QString MacVpnBackend::deleteRoute(const RouteEntry &route) const
{
    QStringList arguments = {QStringLiteral("-n"), QStringLiteral("delete")};
    if (route.family == QLatin1String("inet6"))
        arguments << QStringLiteral("-inet6");
    arguments << (route.type.isEmpty() ? QStringLiteral("-net") : route.type) << route.destination;
    QString failure;
    if (runRoute(arguments, &failure) || RouteReply::isNotInTable(failure))
        return QString();
    return failure;
}

void MacVpnBackend::deleteRouteOrKeep(const RouteEntry &route)
{
    if (const QString error = deleteRoute(route); !error.isEmpty())
        pendingUndo.routes.append({route, error});
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
