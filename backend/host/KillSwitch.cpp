// The kill switch: while it is on, pf lets nothing out or in outside the
// tunnel. pf is used as a good citizen would: the rules go into an anchor
// that the stock ruleset already evaluates, /etc/pf.conf and the main
// ruleset are never touched, and pf is enabled by reference (-E, released
// with -X), so that it ends exactly as enabled or disabled as it was and
// other programs' rules stay as they are.
#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"
#include "backend/host/FirewallRules.h"

#include <QDebug>
#include <QRegularExpression>

MacVpnBackend::KillSwitchSettings MacVpnBackend::killSwitchFromPeer(const QVariantMap &peer) const
{
    const QVariantMap settings = peer.value(QStringLiteral("killSwitch")).toMap();
    return {settings.value(QStringLiteral("enabled")).toBool(),
            settings.value(QStringLiteral("allowLan")).toBool()};
}

// Before the tunnel program starts: from then on only the server's port
// leaves outside the tunnel. Over a block still in place, only the rules change.
bool MacVpnBackend::engageKillSwitch(const QString &endpoint, int port)
{
    firewallEndpoint = endpoint;
    firewallPort = port;
    const bool enabling = !firewallEngaged;
    firewallEngaged = true;
    killSwitchBlocking = false;
    if (enabling) {
        firewallEnabling = true;
        firewallKnownReferences = firewallReferences();
    }
    if (!recordHostChange())
        return false;
    QString error;
    if (!loadFirewallRules(&error)) {
        setError(tr("Не удалось включить блокировку трафика вне туннеля: %1").arg(error));
        return false;
    }
    if (!enabling)
        return true;
    QString output;
    const bool enabled =
        runCommand(host.pfctlTool, {QStringLiteral("-E")}, &output, &error, CommandTimeoutMs);
    static const QRegularExpression token(QStringLiteral("Token : ([0-9]+)"));
    firewallToken = token.match(output + QLatin1Char('\n') + error).captured(1);
    firewallEnabling = firewallToken.isEmpty();
    saveJournal();
    if (!enabled || firewallToken.isEmpty()) {
        setError(tr("Не удалось включить блокировку трафика вне туннеля: %1")
                     .arg((output + error).trimmed()));
        return false;
    }
    qInfo() << "[MacVpnBackend] kill switch on";
    return true;
}

bool MacVpnBackend::updateKillSwitch()
{
    QString error;
    if (!firewallEngaged || loadFirewallRules(&error))
        return true;
    setError(tr("Не удалось включить блокировку трафика вне туннеля: %1").arg(error));
    return false;
}

bool MacVpnBackend::loadFirewallRules(QString *error)
{
    FirewallRules::Allowed allowed{
        tunnelInterface, firewallEndpoint, firewallPort, {}, killSwitch.allowLan};
    allowed.around = controlPlaneBypassHosts;
    for (const RouteEntry &route : std::as_const(installedRoutes)) {
        if (route.via != tunnelInterface)
            allowed.around.append(route.destination);
    }
    QString output;
    return runCommand(
        host.pfctlTool,
        {QStringLiteral("-a"), KillSwitchAnchor, QStringLiteral("-f"), QStringLiteral("-")},
        FirewallRules::text(allowed), &output, error, CommandTimeoutMs);
}

QStringList MacVpnBackend::firewallReferences() const
{
    QString output;
    runCommand(host.pfctlTool, {QStringLiteral("-s"), QStringLiteral("references")}, &output,
               nullptr, CommandTimeoutMs);
    // A token is a 64-bit number; a pid and an age are short.
    static const QRegularExpression token(QStringLiteral("\\b[0-9]{8,20}\\b"));
    QStringList tokens;
    for (auto it = token.globalMatch(output); it.hasNext();)
        tokens.append(it.next().captured());
    return tokens;
}

// The anchor emptied, then our reference given back. A reference pf no
// longer knows (it was reset) has nothing left to give back. One that pf
// handed out while the service died before recording it is the one new
// since; should there be more than one, none is taken for ours.
QString MacVpnBackend::liftKillSwitch()
{
    if (!firewallEngaged)
        return QString();
    QString error;
    if (!runCommand(
            host.pfctlTool,
            {QStringLiteral("-a"), KillSwitchAnchor, QStringLiteral("-F"), QStringLiteral("all")},
            nullptr, &error, CommandTimeoutMs))
        return error.trimmed();
    if (firewallToken.isEmpty() && firewallEnabling) {
        QStringList added = firewallReferences();
        for (const QString &known : std::as_const(firewallKnownReferences))
            added.removeAll(known);
        if (added.size() == 1)
            firewallToken = added.front();
        else if (!added.isEmpty())
            qWarning() << "[MacVpnBackend] pf reference of ours not told from others'" << added;
    }
    if (!firewallToken.isEmpty() &&
        !runCommand(host.pfctlTool, {QStringLiteral("-X"), firewallToken}, nullptr, &error,
                    CommandTimeoutMs) &&
        !error.contains(QLatin1String("Invalid argument")))
        return error.trimmed();
    qInfo() << "[MacVpnBackend] kill switch off";
    firewallEngaged = false;
    killSwitchBlocking = false;
    firewallEnabling = false;
    firewallToken.clear();
    firewallKnownReferences.clear();
    return QString();
}

QString MacVpnBackend::killSwitchBlockingMessage() const
{
    return tr("VPN-туннель прервался: весь трафик заблокирован, пока вы не подключитесь снова "
              "или не отключитесь");
}
