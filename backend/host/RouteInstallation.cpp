#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"

#include <QDebug>

namespace {

const QString Add = QStringLiteral("add");
const QString NumericFlag = QStringLiteral("-n");
const QString Inet6Flag = QStringLiteral("-inet6");
const QString NetType = QStringLiteral("-net");
const QString InterfaceFlag = QStringLiteral("-interface");

} // namespace

bool MacVpnBackend::configureRoutes(const ParsedVpnConfig &config)
{
    serverHost = endpointHost(config);
    const QString gateway = defaultGateway();
    const bool splitActive =
        splitTunnel.enabled && (splitTunnel.mode == 1 || splitTunnel.mode == 2);
    const QStringList splitRoutes = splitActive ? splitTunnelRoutes() : QStringList();
    const bool splitPresent = splitActive && !splitRoutes.isEmpty();

    qInfo() << "[MacVpnBackend] configureRoutes"
            << "endpoint=" << serverHost << "gateway=" << gateway
            << "allowedIps=" << allowedIps(config) << "splitEnabled=" << splitPresent
            << "splitMode=" << splitTunnel.mode << "splitRoutes=" << splitRoutes;

    // Runs one route addition; on failure records the given message with the
    // tool's own explanation and reports false.
    const auto addRoute = [this](const QStringList &arguments, const char *failureMessage) {
        QString standardError;
        if (runCommand(host.routeTool, arguments, nullptr, &standardError, CommandTimeoutMs))
            return true;
        setError(tr(failureMessage).arg(standardError.trimmed()));
        return false;
    };

    // The server must stay reachable outside the tunnel, or the tunnel would
    // carry its own encrypted packets.
    if (!serverHost.isEmpty() && !gateway.isEmpty()) {
        if (!addRoute({NumericFlag, Add, QStringLiteral("-host"), serverHost, gateway},
                      QT_TR_NOOP("Не удалось добавить маршрут до сервера: %1")))
            return false;
    }

    installControlPlaneBypass(gateway);

    if (splitActive && splitTunnel.mode == 1) {
        for (const QString &route : splitRoutes) {
            const QString family = routeFamily(route);
            const QString type = routeType(route);
            QStringList arguments = {NumericFlag, Add};
            if (family == QLatin1String("inet6"))
                arguments << Inet6Flag;
            arguments << type << route << InterfaceFlag << tunnelInterface;
            if (!addRoute(arguments,
                          QT_TR_NOOP("Не удалось добавить маршрут раздельного туннелирования: %1")))
                return false;
            installedRoutes.append({family, route, type});
        }
        return true;
    }

    // Full tunnelling uses two half routes per family, which win over the
    // default route by being more specific without replacing it.
    const QStringList allowed = allowedIps(config);
    QStringList ipv4Destinations;
    if (allowed.contains(QLatin1String("0.0.0.0/0"))) {
        ipv4Destinations = {QStringLiteral("0.0.0.0/1"), QStringLiteral("128.0.0.0/1")};
    } else {
        for (const QString &range : allowed) {
            if (!range.isEmpty() && range.front() >= QLatin1Char('0') &&
                range.front() <= QLatin1Char('9'))
                ipv4Destinations.append(range);
        }
    }
    for (const QString &destination : std::as_const(ipv4Destinations)) {
        if (!addRoute({NumericFlag, Add, NetType, destination, InterfaceFlag, tunnelInterface},
                      QT_TR_NOOP("Не удалось добавить IPv4 маршрут: %1")))
            return false;
        installedRoutes.append({QStringLiteral("inet"), destination, NetType});
    }
    if (allowed.contains(QLatin1String("::/0"))) {
        for (const QString &destination : {QStringLiteral("::/1"), QStringLiteral("8000::/1")}) {
            runCommand(
                host.routeTool,
                {NumericFlag, Add, Inet6Flag, NetType, destination, InterfaceFlag, tunnelInterface},
                nullptr, nullptr, CommandTimeoutMs);
            // Recorded whatever happened, so that removal tries it as well.
            installedRoutes.append({QStringLiteral("inet6"), destination, NetType});
        }
    }

    if (splitPresent && splitTunnel.mode == 2) {
        if (gateway.isEmpty())
            return true;
        for (const QString &route : splitRoutes) {
            const QString type = routeType(route);
            if (!addRoute(
                    {NumericFlag, Add, type, route, gateway},
                    QT_TR_NOOP("Не удалось добавить исключение раздельного туннелирования: %1")))
                return false;
            installedRoutes.append({QStringLiteral("inet"), route, type});
        }
    }
    return true;
}
