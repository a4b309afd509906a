#pragma once

#include "backend/host/FirewallRules.h"

#include <QElapsedTimer>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <functional>

// pf's side of the kill switch, as one object: the rules in our anchor, the
// reference that keeps pf enabled, and whether the block is really in force.
// pf is used as a good citizen would: the rules go into an anchor that the
// stock ruleset already evaluates, /etc/pf.conf and the main ruleset are
// never touched, and pf is enabled by reference (-E, given back with -X), so
// that it ends exactly as enabled as it was and other programs' rules stay.
// Each change is recorded in the journal before it is made.
//
// Anyone may run "pfctl -d" (some VPN clients do when they stop), flush the
// main ruleset or load another: so the block is checked, on a network change,
// on wake and once a minute, and what it lacks is put back. A main ruleset
// that no longer reaches our anchor is not rewritten; that is reported.
class KillSwitch : public QObject
{
    Q_OBJECT

public:
    enum class Enforcement { Unverified, Enforced, NotEnforced };
    // One of the three checks a minute, in turn, while nothing changes.
    static constexpr int CheckIntervalMs = 60000;

    // record saves the journal, the error when it cannot.
    KillSwitch(QString pfctlTool, std::function<bool(QString *error)> record,
               QObject *parent = nullptr);

    bool isEngaged() const { return engaged; }
    // Engaged without a tunnel to let through.
    bool isBlocking() const { return engaged && allowed.tunnelInterface.isEmpty(); }
    Enforcement enforcement() const { return engaged ? state : Enforcement::Unverified; }
    bool allowsLan() const { return allowed.localNetworks; }

    // Puts these rules in force, enabling pf by a reference of ours the first
    // time. When the block begins without a tunnel, or the tunnel leaves it,
    // the connections pf has let through lose their states and are judged by
    // the new rules: what they do not pass stops, whatever interface it
    // would take now.
    bool engage(const FirewallRules::Allowed &rules, QString *error);
    // Empties the anchor and gives our reference back; empty when done, else
    // the error (the block then stays, and the lift is tried again).
    QString lift();
    // All three checks, putting back what is missing.
    Enforcement verify();
    // Starts or stops the periodic check to match; only from the event loop.
    void watch();

    QJsonObject record() const;
    // From the journal of an earlier run: the block it left, now blocking
    // alone, since that run's tunnel is gone. False when not well formed.
    bool adopt(const QJsonObject &record);

Q_SIGNALS:
    void enforcementChanged();

private:
    enum Check { PfEnabled, AnchorReached, RulesLoaded, Checks };
    bool pfctl(const QStringList &arguments, QString *output, QString *error,
               const QByteArray &input = QByteArray()) const;
    bool check(Check which);
    bool loadRules(QString *error);
    bool enable(QString *error);
    void killStates();
    QStringList references() const;
    void setState(Enforcement enforcement);
    void periodicCheck();

    const QString tool;
    const std::function<bool(QString *)> saveJournal;
    FirewallRules::Allowed allowed;
    bool engaged = false;
    // Adopted from an earlier run: loaded again, states killed, at the next engage.
    bool stale = false;
    QString token;
    // Before "pfctl -E": the references there were then. Should the service
    // die before it has recorded its own, that is the one that is new.
    bool enabling = false;
    QStringList knownReferences;
    Enforcement state = Enforcement::Unverified;
    bool reached = true;
    QTimer timer;
    int nextCheck = PfEnabled;
    // A Mac that slept: the wall clock has run on, the monotonic one has not.
    QElapsedTimer awake;
    qint64 wallAtCheck = 0;
};
