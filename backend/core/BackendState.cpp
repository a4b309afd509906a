#include "backend/MacVpnBackend.h"

#include <QDebug>

namespace {

// Asked on behalf of any caller: short, so that a hung tunnel program holds
// the service up only briefly.
constexpr int StatisticsTimeoutMs = 1000;

} // namespace

MacVpnBackend::MacVpnBackend(QObject *parent) : MacVpnBackend(MacHostEnvironment(), parent) {}

MacVpnBackend::MacVpnBackend(MacHostEnvironment environment, QObject *parent)
    : PlatformVpnBackend(parent), host(std::move(environment)),
      tunnel(host, [this] { return recordHostChange(); }),
      routes(host, {[this] { return recordHostChange(); }, [this] { return saveJournal(); },
                    [this](const QString &interfaceName) { return tunnel.holds(interfaceName); }}),
      dns(host), hostsBlock(host.hostsFile),
      firewall(host.pfctlTool, [this](QString *error) { return saveJournal(error); })
{
    connect(&tunnel, &TunnelProgram::exited, this, &MacVpnBackend::handleTunnelExit);
    connect(&routes, &HostRoutes::settled, this, &MacVpnBackend::followNetworkChange);
    connect(&pendingUndo, &PendingUndo::due, this, &MacVpnBackend::retryPendingWhileIdle);
    connect(&firewall, &Firewall::pauseEnded, this, &MacVpnBackend::watchNetwork);
}

// An orderly stop (an upgrade, a restart) undoes the tunnel's changes but
// never opens the network: a block in force stays, recorded, for the next
// instance to take over; a pause of always-on ends.
MacVpnBackend::~MacVpnBackend()
{
    firewall.stopPause();
    cleanup(Block::Keep);
}

PlatformVpnBackend::Status MacVpnBackend::status() const
{
    return static_cast<Status>(currentStatus);
}

QString MacVpnBackend::lastError() const
{
    return lastErrorMessage;
}

void MacVpnBackend::setStatus(Status status)
{
    if (status == currentStatus)
        return;
    currentStatus = status;
    qInfo() << "[MacVpnBackend] status changed" << status;
    Q_EMIT statusChanged(status);
}

void MacVpnBackend::setError(const QString &message)
{
    lastErrorMessage = message;
    if (message.isEmpty())
        return;
    qWarning() << "[MacVpnBackend] error:" << message;
    setStatus(Error);
    Q_EMIT errorOccurred(lastErrorMessage);
}

// While connected: the interface, the endpoint, how long the tunnel has been
// up, and, asked of the tunnel program, the last handshake (seconds since
// the epoch, 0 for none) and the bytes received and sent; at any time, the
// block and the undo steps still to be done. False when not connected or the
// tunnel program did not answer.
bool MacVpnBackend::refreshStatus(QVariantMap *details)
{
    if (!details)
        return currentStatus == Connected;
    details->clear();
    if (!pendingUndo.isEmpty())
        details->insert(QStringLiteral("pendingUndo"), pendingUndo.steps());
    if (!journal.left().isEmpty())
        details->insert(QStringLiteral("journalLeft"), journal.left());
    firewall.describe(details);
    if (const QVariantMap always = firewall.alwaysOnState(); !always.isEmpty())
        details->insert(QStringLiteral("alwaysOn"), always);
    if (currentStatus != Connected)
        return false;
    details->insert(QStringLiteral("interface"), tunnel.interfaceName());
    details->insert(QStringLiteral("endpoint"), plan.endpoint);
    if (!firewall.isEngaged())
        details->insert(QStringLiteral("leakProtection"), QStringLiteral("off"));
    // Under the block pf refuses what those routes would take around the tunnel.
    if (QStringList foreign = routes.foreign(); !foreign.isEmpty()) {
        if (firewall.isEngaged()) {
            for (QString &route : foreign)
                route += QLatin1String(": refused");
        }
        details->insert(QStringLiteral("aroundTunnelByNetwork"), foreign);
    }
    if (plan.split.entries > 0)
        details->insert(QStringLiteral("splitTunnel"),
                        QVariantMap{{QStringLiteral("entries"), plan.split.entries},
                                    {QStringLiteral("routes"), plan.split.routes}});
    // From the start of the tunnel program, so no handshake is older than the tunnel.
    details->insert(QStringLiteral("uptimeSeconds"), tunnel.uptimeSeconds());

    // The listing holds the private key too; only the counters are taken.
    const QString reply = tunnel.query(QStringLiteral("get=1\n"), StatisticsTimeoutMs);
    if (uapiErrno(reply) != 0)
        return false;
    qint64 handshake = 0;
    qint64 received = 0;
    qint64 sent = 0;
    for (const QString &line : reply.split(QLatin1Char('\n'))) {
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

// A step that cannot be recorded is not taken: it fails with a message, so
// that no change goes unrecorded.
bool MacVpnBackend::recordHostChange()
{
    QString reason;
    if (saveJournal(&reason))
        return true;
    setError(tr("Не удалось записать журнал изменений системы: %1").arg(reason));
    return false;
}
