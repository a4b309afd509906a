#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"

void MacVpnBackend::removeRoutes()
{
    removeControlPlaneBypass();

    for (auto it = installedRoutes.crbegin(); it != installedRoutes.crend(); ++it)
        deleteRoute(*it);
    installedRoutes.clear();

    // A server route that was there before us, or never added, is not ours to delete.
    if (!serverRouteGateway.isEmpty() && !serverHost.isEmpty())
        deleteRoute({routeFamily(serverHost), serverHost, QStringLiteral("-host"), QString()});
    serverRouteGateway.clear();
}
