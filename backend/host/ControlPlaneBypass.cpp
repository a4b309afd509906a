#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"
#include "backend/host/BypassFilter.h"
#include "config/NetworkText.h"

#include <QDebug>
#include <QHostAddress>

// The control-plane host is reached around the tunnel, by the physical
// gateway, at the addresses the network's resolver gave for it (those that
// pass BypassFilter), and pinned to them in the hosts file once the lasting
// changes are recorded.
void MacVpnBackend::installControlPlaneBypass(const QString &gateway)
{
    removeControlPlaneBypass();
    if (gateway.isEmpty()) {
        qWarning() << "[MacVpnBackend] control-plane bypass skipped: empty gateway";
        return;
    }
    const QString hostName = controlPlaneHost();
    QStringList candidates;
    for (const QString &address : addressesAroundTunnel(hostName)) {
        if (NetworkText::isIpv4Route(address))
            candidates.append(address);
    }
    if (candidates.isEmpty())
        return;
    // Recorded before the first route is added.
    controlPlaneBypassHosts = candidates;
    if (!saveJournal()) {
        qWarning() << "[MacVpnBackend] control-plane bypass skipped: journal not written";
        controlPlaneBypassHosts.clear();
        return;
    }

    QStringList added;
    for (const QString &address : std::as_const(candidates)) {
        QString failure;
        const RouteEntry bypass{QStringLiteral("inet"), address, QStringLiteral("-host"), gateway};
        if (!runRoute(routeAddArguments(bypass), &failure)) {
            qWarning() << "[MacVpnBackend] control-plane route failed" << address << failure;
            continue;
        }
        added.append(address);
        qInfo() << "[MacVpnBackend] control-plane bypass" << hostName << "->" << address << "via"
                << gateway;
    }
    controlPlaneBypassHosts = added;
    hostsToPin = added;
    saveJournal();
}

QStringList MacVpnBackend::addressesAroundTunnel(const QString &name) const
{
    const QHostInfo info = lookedUp(name);
    if (info.error() != QHostInfo::NoError) {
        qWarning() << "[MacVpnBackend] name resolve failed" << name << info.errorString();
        return {};
    }
    const BypassFilter::Verdict verdict =
        BypassFilter::filter(name, info.addresses(), tunnelAddresses);
    for (const QString &dropped : verdict.dropped)
        qWarning() << "[MacVpnBackend] not routed around the tunnel:" << name << dropped;
    return verdict.kept;
}

void MacVpnBackend::removeControlPlaneBypass()
{
    unpinControlPlaneHosts();
    QList<RouteEntry> bypass;
    for (const QString &address : std::as_const(controlPlaneBypassHosts))
        bypass.append({QStringLiteral("inet"), address, QStringLiteral("-host"), physicalGateway});
    undoRoutes(bypass);
    controlPlaneBypassHosts.clear();
}
