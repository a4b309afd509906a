#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"

void MacVpnBackend::removeRoutes()
{
    removeControlPlaneBypass();

    const QString numeric = QStringLiteral("-n");
    const QString remove = QStringLiteral("delete");
    for (auto it = installedRoutes.crbegin(); it != installedRoutes.crend(); ++it) {
        const QString type = it->type.isEmpty() ? QStringLiteral("-net") : it->type;
        QStringList arguments = {numeric, remove};
        if (it->family == QLatin1String("inet6"))
            arguments << QStringLiteral("-inet6");
        arguments << type << it->destination;
        runCommand(host.routeTool, arguments, nullptr, nullptr, CommandTimeoutMs);
    }
    installedRoutes.clear();

    if (!serverHost.isEmpty())
        runCommand(host.routeTool, {numeric, remove, QStringLiteral("-host"), serverHost}, nullptr,
                   nullptr, CommandTimeoutMs);
}
