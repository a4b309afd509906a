// How the tunnel is doing, for the "details" request: nothing secret.
#include "backend/MacVpnBackend.h"

namespace {

// Asked on behalf of any caller: short, so that a hung tunnel program holds
// the service up only briefly.
constexpr int StatisticsTimeoutMs = 1000;

} // namespace

bool MacVpnBackend::refreshStatus(QVariantMap *details)
{
    if (!details)
        return currentStatus == Connected;
    details->clear();
    if (!pendingUndo.isEmpty())
        details->insert(QStringLiteral("pendingUndo"), pendingUndo.steps(host.hostsFile));
    if (!journalLeft.isEmpty())
        details->insert(QStringLiteral("journalLeft"), journalLeft);
    // "on" and "blocking" only once the block is verified in force.
    if (firewall.isEngaged()) {
        const KillSwitch::Enforcement enforcement = firewall.enforcement();
        details->insert(
            QStringLiteral("killSwitch"),
            enforcement == KillSwitch::Enforcement::NotEnforced ? QStringLiteral("not enforced")
            : enforcement != KillSwitch::Enforcement::Enforced  ? QStringLiteral("not verified")
            : firewall.isBlocking()                             ? QStringLiteral("blocking")
                                                                : QStringLiteral("on"));
        if (enforcement != KillSwitch::Enforcement::Enforced && !firewall.problem().isEmpty())
            details->insert(QStringLiteral("blockProblem"), firewall.problem());
    }
    if (const QVariantMap always = alwaysOnState(); !always.isEmpty())
        details->insert(QStringLiteral("alwaysOn"), always);
    if (currentStatus != Connected)
        return false;
    details->insert(QStringLiteral("interface"), tunnelInterface);
    details->insert(QStringLiteral("endpoint"), tunnelEndpoint);
    // From the start of the tunnel program, so no handshake is older than the tunnel.
    details->insert(QStringLiteral("uptimeSeconds"), tunnelClock.elapsed() / 1000);

    // The listing holds the private key too; only the counters are taken.
    const QString reply = uapiQuery(QStringLiteral("get=1\n"), StatisticsTimeoutMs);
    if (uapiErrno(reply) != 0)
        return false;
    qint64 handshake = 0;
    qint64 received = 0;
    qint64 sent = 0;
    const QStringList lines = reply.split(QLatin1Char('\n'));
    for (const QString &line : lines) {
        const QString key = line.section(QLatin1Char('='), 0, 0);
        const qint64 value = line.section(QLatin1Char('='), 1).toLongLong();
        if (key == QLatin1String("last_handshake_time_sec"))
            handshake = qMax(handshake, value);
        else if (key == QLatin1String("rx_bytes"))
            received += value;
        else if (key == QLatin1String("tx_bytes"))
            sent += value;
    }
    details->insert(QStringLiteral("lastHandshake"), handshake);
    details->insert(QStringLiteral("receivedBytes"), received);
    details->insert(QStringLiteral("sentBytes"), sent);
    return true;
}
