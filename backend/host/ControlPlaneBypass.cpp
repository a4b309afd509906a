#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"

#include <QDebug>
#include <QHostAddress>

void MacVpnBackend::installControlPlaneBypass(const QString &gateway)
{
    removeControlPlaneBypass();
    if (gateway.isEmpty()) {
        qWarning() << "[MacVpnBackend] control-plane bypass skipped: empty gateway";
        return;
    }
    const QString hostName = controlPlaneHost();
    if (hostName.isEmpty())
        return;

    const QHostInfo info = lookedUp(hostName);
    if (info.error() != QHostInfo::NoError) {
        qWarning() << "[MacVpnBackend] control-plane resolve failed" << hostName
                   << info.errorString();
        return;
    }

    QStringList candidates;
    const QList<QHostAddress> addresses = info.addresses();
    for (const QHostAddress &address : addresses) {
        if (address.protocol() == QAbstractSocket::IPv4Protocol &&
            !candidates.contains(address.toString()))
            candidates.append(address.toString());
    }
    if (candidates.isEmpty())
        return;
    // Recorded, with the hosts block, before the first route is added.
    controlPlaneBypassHosts = candidates;
    hostsPinned = true;
    if (!saveJournal()) {
        qWarning() << "[MacVpnBackend] control-plane bypass skipped: journal not written";
        controlPlaneBypassHosts.clear();
        hostsPinned = false;
        return;
    }

    QStringList pinned;
    for (const QHostAddress &address : addresses) {
        if (address.protocol() != QAbstractSocket::IPv4Protocol)
            continue;
        const QString text = address.toString();
        if (pinned.contains(text))
            continue;
        QString failure;
        const RouteEntry bypass{QStringLiteral("inet"), text, QStringLiteral("-host"), gateway};
        if (!runRoute(routeAddArguments(bypass), &failure)) {
            qWarning() << "[MacVpnBackend] control-plane route failed" << text << failure;
            continue;
        }
        pinned.append(text);
        qInfo() << "[MacVpnBackend] control-plane bypass" << hostName << "->" << text << "via"
                << gateway;
    }
    controlPlaneBypassHosts = pinned;
    hostsPinned = !pinned.isEmpty();
    saveJournal();
    if (!pinned.isEmpty())
        pinControlPlaneHosts(pinned);
}

void MacVpnBackend::removeControlPlaneBypass()
{
    unpinControlPlaneHosts();
    hostsPinned = false;
    for (const QString &address : std::as_const(controlPlaneBypassHosts))
        deleteRoute({QStringLiteral("inet"), address, QStringLiteral("-host"), physicalGateway});
    controlPlaneBypassHosts.clear();
}
