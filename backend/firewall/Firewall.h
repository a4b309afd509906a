#pragma once

#include "backend/core/HostRoom.h"
#include "backend/firewall/FirewallRules.h"
#include "backend/firewall/KillSwitch.h"

#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QVariantMap>

#include <functional>

// When nothing may leave outside the tunnel, and what then still may, as one
// policy: the block is wanted while the user's connection holds its kill
// switch (from before its tunnel program starts until the user disconnects,
// through a tunnel that failed or a service that stopped), while always-on
// is on, but for a pause, and while a tunnel is up with leak protection (on
// unless the user turned it off): then the network cannot steer anything
// around the tunnel, whatever routes or "local" subnets it hands the Mac,
// and it ends with the tunnel, not held. What the rules let through follows
// the connection: its server's port while it comes up, the tunnel itself
// and what goes around it by design once it is up, and, without it, nothing
// but the link's own traffic and, when allowed, the local networks. pf's
// side is KillSwitch's; a lift that fails leaves the block in force, which
// is safe: it is kept and tried again, as any undo is.
class Firewall : public QObject, public HostRoom
{
    Q_OBJECT

public:
    // Owned by the service and kept across restarts: no traffic outside the
    // tunnel whenever it is not up, from boot until the user turns it off.
    struct AlwaysOn
    {
        bool enabled = false;
        bool allowLan = false;
    };
    // At most this long without the block, for a captive portal's login page.
    static constexpr int MaxPauseSeconds = 120;

    // record saves the journal, the error when it cannot.
    Firewall(const QString &pfctlTool, std::function<bool(QString *)> record,
             QObject *parent = nullptr);

    // The status's words while the user's kill switch blocks without a tunnel.
    static QString blockingMessage();

    bool wanted() const { return held || protecting || (alwaysOn.enabled && !pause.isActive()); }
    bool isEngaged() const { return pf.isEngaged(); }
    bool holdsPf() const { return pf.holdsPf(); }
    bool isHeld() const { return held; }
    // The user's connection holds the block (or not) from now on.
    void hold(bool holding, bool allowLan);
    // What the connection lets through: nothing, its server, or its tunnel
    // too; and whether its tunnel is protected from leaks without a block.
    void setConnection(const FirewallRules::Allowed &passes, bool protect = false)
    {
        connection = passes;
        protecting = protect && !passes.tunnelInterface.isEmpty();
    }
    // In force while wanted, with what is allowed now; lifted otherwise.
    // False, with the user's message, when it cannot be put in force.
    bool update(QString *error);
    KillSwitch::Enforcement verify() { return pf.verify(); }
    void watch() { pf.watch(); }
    bool blockingVerified() const;

    void setAlwaysOn(const AlwaysOn &settings);
    AlwaysOn alwaysOnSettings() const { return alwaysOn; }
    // Empty when paused, else why not.
    QString pauseAlwaysOn(int seconds, bool connected);
    void stopPause() { pause.stop(); }
    // For anyone: the setting and whether the block is verified in force;
    // empty while it is off.
    QVariantMap alwaysOnState() const;
    // For "details": "on", "blocking", "not verified", "not enforced", and
    // why; as "killSwitch" or, while only the tunnel's protection holds it,
    // "leakProtection".
    void describe(QVariantMap *details) const;

    void retryPending() override;
    QVariantList pendingSteps() const override;
    void write(QJsonObject *session, QJsonObject *settings) const override;
    void read(const QJsonObject &session, const QJsonObject &settings) override;

Q_SIGNALS:
    // The pause is over, and the block back (or not, said in the log).
    void pauseEnded();

private:
    FirewallRules::Allowed rules() const;

    KillSwitch pf;
    bool held = false;
    bool heldLan = false;
    bool protecting = false;
    AlwaysOn alwaysOn;
    QTimer pause;
    FirewallRules::Allowed connection;
    QString pendingLift; // the error, while the rules are still in force
};
