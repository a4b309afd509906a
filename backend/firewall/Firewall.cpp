#include "backend/firewall/Firewall.h"

#include <QCoreApplication>
#include <QDebug>

namespace {

QString translated(const char *text)
{
    return QCoreApplication::translate("MacVpnBackend", text);
}

} // namespace

Firewall::Firewall(const QString &pfctlTool, std::function<bool(QString *)> record, QObject *parent)
    : QObject(parent), pf(pfctlTool, std::move(record))
{
    pause.setSingleShot(true);
    // For the login page of a hotel's or an airport's network: the block
    // comes back by itself, whatever the client does.
    connect(&pause, &QTimer::timeout, this, [this] {
        qInfo() << "[MacVpnBackend] always-on pause over: blocking again";
        QString error;
        if (!update(&error))
            qWarning() << "[MacVpnBackend] block not restored after the pause" << error;
        Q_EMIT pauseEnded();
    });
}

QString Firewall::blockingMessage()
{
    return translated("VPN-туннель прервался: весь трафик заблокирован, пока вы не подключитесь "
                      "снова или не отключитесь");
}

void Firewall::hold(bool holding, bool allowLan)
{
    held = holding;
    heldLan = allowLan;
}

// The protection alone lets the local networks through, their private
// ranges only: a LAN that claims a public range gets nothing around the
// tunnel. A block the user asked for keeps the user's word on them, and
// lets nothing but the tunnel out, selected destinations or not.
FirewallRules::Allowed Firewall::rules() const
{
    FirewallRules::Allowed allowed = connection;
    if (held || alwaysOn.enabled) {
        allowed.localNetworks = held ? heldLan : alwaysOn.allowLan;
        allowed.onlyThrough.clear();
    } else {
        allowed.localNetworks = true;
    }
    return allowed;
}

bool Firewall::update(QString *error)
{
    if (!wanted()) {
        if (pf.holdsPf())
            pendingLift = pf.lift();
        return true;
    }
    pendingLift.clear();
    QString reason;
    if (pf.engage(rules(), &reason))
        return true;
    *error = translated("Не удалось включить блокировку трафика вне туннеля: %1").arg(reason);
    return false;
}

bool Firewall::blockingVerified() const
{
    return pf.isEngaged() && pf.enforcement() == KillSwitch::Enforcement::Enforced;
}

void Firewall::setAlwaysOn(const AlwaysOn &settings)
{
    qInfo() << "[MacVpnBackend] always-on" << (settings.enabled ? "on" : "off")
            << "allowLan=" << settings.allowLan;
    alwaysOn = settings;
    pause.stop();
}

// A restart ends the pause too: it is not recorded.
QString Firewall::pauseAlwaysOn(int seconds, bool connected)
{
    if (!alwaysOn.enabled || connected || held)
        return translated("Паузу блокировки можно сделать только при включённом режиме «всегда "
                          "через VPN» и без подключения");
    qInfo() << "[MacVpnBackend] always-on paused for" << seconds << "s";
    pause.start(qBound(1, seconds, MaxPauseSeconds) * 1000);
    QString error;
    update(&error);
    return QString();
}

QVariantMap Firewall::alwaysOnState() const
{
    if (!alwaysOn.enabled)
        return QVariantMap();
    const bool verified = blockingVerified();
    QVariantMap state{
        {QStringLiteral("enabled"), true},
        {QStringLiteral("allowLan"), alwaysOn.allowLan},
        {QStringLiteral("verified"), verified},
    };
    if (!verified && !pf.problem().isEmpty())
        state.insert(QStringLiteral("problem"), pf.problem());
    if (pause.isActive())
        state.insert(QStringLiteral("pausedSeconds"), (pause.remainingTime() + 999) / 1000);
    return state;
}

// "on" and "blocking" only once the block is verified in force.
void Firewall::describe(QVariantMap *details) const
{
    if (!pf.isEngaged())
        return;
    const KillSwitch::Enforcement enforcement = pf.enforcement();
    const bool protectionAlone = !held && !alwaysOn.enabled;
    if (!connection.tunnelInterface.isEmpty())
        details->insert(QStringLiteral("appleAroundTunnel"), rules().appleServices);
    details->insert(
        protectionAlone ? QStringLiteral("leakProtection") : QStringLiteral("killSwitch"),
        enforcement == KillSwitch::Enforcement::NotEnforced ? QStringLiteral("not enforced")
        : enforcement != KillSwitch::Enforcement::Enforced  ? QStringLiteral("not verified")
        : pf.isBlocking()                                   ? QStringLiteral("blocking")
                                                            : QStringLiteral("on"));
    if (enforcement != KillSwitch::Enforcement::Enforced && !pf.problem().isEmpty())
        details->insert(QStringLiteral("blockProblem"), pf.problem());
}

void Firewall::retryPending()
{
    if (!pendingLift.isEmpty() && !wanted())
        pendingLift = pf.lift();
    else
        pendingLift.clear();
}

QVariantList Firewall::pendingSteps() const
{
    if (pendingLift.isEmpty())
        return {};
    return {QVariantMap{{QStringLiteral("what"), translated("правила pf")},
                        {QStringLiteral("error"), pendingLift}}};
}

void Firewall::write(QJsonObject *session, QJsonObject *settings) const
{
    if (pf.holdsPf() || !pendingLift.isEmpty()) {
        QJsonObject block = pf.record();
        block.insert(QStringLiteral("held"), held);
        if (!pendingLift.isEmpty())
            block.insert(QStringLiteral("pending"), pendingLift);
        session->insert(QStringLiteral("firewall"), block);
    }
    if (alwaysOn.enabled)
        settings->insert(QStringLiteral("alwaysOn"),
                         QJsonObject{{QStringLiteral("enabled"), true},
                                     {QStringLiteral("allowLan"), alwaysOn.allowLan}});
}

// A block an earlier run left: blocking alone, since that run's tunnel is gone.
void Firewall::read(const QJsonObject &session, const QJsonObject &settings)
{
    const QJsonObject block = session.value(QLatin1String("firewall")).toObject();
    if (pf.adopt(block)) {
        held = block.value(QLatin1String("held")).toBool();
        heldLan = pf.allowsLan();
        pendingLift = block.value(QLatin1String("pending")).toString();
    } else if (session.contains(QLatin1String("firewall"))) {
        qWarning() << "[MacVpnBackend] journal entry ignored: kill switch" << block;
    }
    const QJsonObject always = settings.value(QLatin1String("alwaysOn")).toObject();
    alwaysOn = {always.value(QLatin1String("enabled")).toBool(),
                always.value(QLatin1String("allowLan")).toBool()};
}
