// When nothing may leave outside the tunnel, and what then still may. The
// block is wanted while the user's connection holds its kill switch (from
// before its tunnel program starts until the user disconnects, through a
// tunnel that failed or a service that stopped) and while always-on is on,
// but for a pause. What the rules let through follows the tunnel: its
// server's port while it comes up, the tunnel itself and what goes around it
// by design once it is up, and, without it, nothing but the link's own
// traffic and, when allowed, the local networks.
#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"

#include <QDebug>

MacVpnBackend::KillSwitchSettings MacVpnBackend::killSwitchFromPeer(const QVariantMap &peer) const
{
    const QVariantMap settings = peer.value(QStringLiteral("killSwitch")).toMap();
    return {settings.value(QStringLiteral("enabled")).toBool(),
            settings.value(QStringLiteral("allowLan")).toBool()};
}

bool MacVpnBackend::blockWanted() const
{
    return killSwitchHeld || (alwaysOn.enabled && !pause.isActive());
}

FirewallRules::Allowed MacVpnBackend::blockRules() const
{
    FirewallRules::Allowed allowed;
    allowed.localNetworks = killSwitchHeld ? killSwitch.allowLan : alwaysOn.allowLan;
    if (firewallEndpoint.isEmpty())
        return allowed;
    allowed.endpoint = firewallEndpoint;
    allowed.port = firewallPort;
    if (tunnelInterface.isEmpty())
        return allowed;
    allowed.tunnelInterface = tunnelInterface;
    allowed.tunnelDns = tunnelDnsServers;
    allowed.https = controlPlaneBypassHosts;
    for (const RouteEntry &route : std::as_const(installedRoutes)) {
        if (route.via != tunnelInterface)
            allowed.around.append(route.destination);
    }
    return allowed;
}

// A lift that fails leaves the block in force, which is safe: it is kept
// and tried again, as any undo is.
bool MacVpnBackend::updateBlock()
{
    if (!blockWanted()) {
        if (firewall.holdsPf())
            pendingUndo.firewall = firewall.lift();
        return true;
    }
    pendingUndo.firewall.clear();
    QString error;
    if (firewall.engage(blockRules(), &error))
        return true;
    setError(tr("Не удалось включить блокировку трафика вне туннеля: %1").arg(error));
    return false;
}

QString MacVpnBackend::killSwitchBlockingMessage() const
{
    return tr("VPN-туннель прервался: весь трафик заблокирован, пока вы не подключитесь снова "
              "или не отключитесь");
}

void MacVpnBackend::watchNetwork()
{
    const bool watching = currentStatus == Connected || firewall.isEngaged();
    if (watching && !routeMonitor.isRunning())
        routeMonitor.start(host.routeTool);
    else if (!watching)
        routeMonitor.stop();
    firewall.watch();
}

// Recorded durably before anything changes: a reboot keeps the setting, and
// the block comes back at the next start.
bool MacVpnBackend::setAlwaysOn(const AlwaysOnSettings &settings)
{
    qInfo() << "[MacVpnBackend] always-on" << (settings.enabled ? "on" : "off")
            << "allowLan=" << settings.allowLan;
    const AlwaysOnSettings before = alwaysOn;
    alwaysOn = settings;
    pause.stop();
    if (!recordHostChange()) {
        alwaysOn = before;
        return false;
    }
    const bool done = updateBlock();
    watchNetwork();
    return done;
}

// For the login page of a hotel's or an airport's network: the block comes
// back by itself, whatever the client does; a restart ends the pause too.
QString MacVpnBackend::pauseAlwaysOn(int seconds)
{
    if (!alwaysOn.enabled || currentStatus == Connected || connectRunning || killSwitchHeld)
        return tr("Паузу блокировки можно сделать только при включённом режиме «всегда "
                  "через VPN» и без подключения");
    qInfo() << "[MacVpnBackend] always-on paused for" << seconds << "s";
    pause.start(qBound(1, seconds, MaxPauseSeconds) * 1000);
    updateBlock();
    watchNetwork();
    return QString();
}

void MacVpnBackend::endPause()
{
    qInfo() << "[MacVpnBackend] always-on pause over: blocking again";
    pause.stop();
    if (!updateBlock())
        qWarning() << "[MacVpnBackend] block not restored after the pause" << lastError();
    watchNetwork();
}

QVariantMap MacVpnBackend::alwaysOnState() const
{
    if (!alwaysOn.enabled)
        return QVariantMap();
    const bool verified =
        firewall.isEngaged() && firewall.enforcement() == KillSwitch::Enforcement::Enforced;
    QVariantMap state{
        {QStringLiteral("enabled"), true},
        {QStringLiteral("allowLan"), alwaysOn.allowLan},
        {QStringLiteral("verified"), verified},
    };
    if (!verified && !firewall.problem().isEmpty())
        state.insert(QStringLiteral("problem"), firewall.problem());
    if (pause.isActive())
        state.insert(QStringLiteral("pausedSeconds"), (pause.remainingTime() + 999) / 1000);
    return state;
}

QString MacVpnBackend::recordedEndpoint(const QString &name) const
{
    return endpointAddresses.addressOf(name);
}
