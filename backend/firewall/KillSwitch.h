#pragma once

#include "backend/firewall/FirewallRules.h"

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
// main ruleset, load another or empty our anchor. So every round, on a
// network change and every RoundIntervalMs, checks all three: pf enabled,
// the main ruleset reaching our anchor, our rules in it; what we may put
// back is put back in the same round. A main ruleset that no longer reaches
// our anchor is not rewritten; that is reported. The block is "enforced"
// only when the whole round found it so.
class KillSwitch : public QObject
{
    Q_OBJECT

public:
    enum class Enforcement { Unverified, Enforced, NotEnforced };
    // A change by anyone else is seen, and put right, within 10 s.
    static constexpr int RoundIntervalMs = 9000;

    // record saves the journal, the error when it cannot.
    KillSwitch(QString pfctlTool, std::function<bool(QString *error)> record,
               QObject *parent = nullptr);

    // The block is meant to be in force.
    bool isEngaged() const { return engaged; }
    // Something of ours is still in pf to give back: the block, or a
    // reference a lift could not return.
    bool holdsPf() const { return engaged || loaded || enabling || !token.isEmpty(); }
    // Engaged without a tunnel to let through.
    bool isBlocking() const { return engaged && allowed.tunnelInterface.isEmpty(); }
    Enforcement enforcement() const { return engaged ? state : Enforcement::Unverified; }
    // What the last round found wrong; empty while enforced.
    QString problem() const { return engaged ? problems.join(QLatin1String("; ")) : QString(); }
    bool allowsLan() const { return allowed.localNetworks; }

    // Puts these rules in force, enabling pf by a reference of ours the first
    // time. The connections pf has let through that the new rules would not
    // pass lose their states: what they send next is judged by the new rules.
    bool engage(const FirewallRules::Allowed &rules, QString *error);
    // Empties the anchor and gives our reference back; empty when done, else
    // the error (what is left is given back at the next lift).
    QString lift();
    // One round of every check, putting back what is missing.
    Enforcement verify();
    // Starts or stops the rounds to match; only from the event loop.
    void watch();

    QJsonObject record() const;
    // From the journal of an earlier run: the block it left, now blocking
    // alone, since that run's tunnel is gone. False when not well formed.
    bool adopt(const QJsonObject &record);

Q_SIGNALS:
    void enforcementChanged();

private:
    enum Check { PfEnabled = 1, AnchorReached = 2, RulesLoaded = 4, EveryCheck = 7 };
    bool pfctl(const QStringList &arguments, QString *output, QString *error,
               const QByteArray &input = QByteArray()) const;
    void round(int checks);
    void settle(const QStringList &found);
    bool pfEnabled(QString *problem);
    bool rulesInForce(QString *problem);
    bool loadRules(QString *error);
    bool enable(QString *error);
    void killStates(const QList<QStringList> &kills);
    QStringList references() const;

    const QString tool;
    const std::function<bool(QString *)> saveJournal;
    FirewallRules::Allowed allowed;
    bool engaged = false;
    // Our rules are in the anchor, as far as we know.
    bool loaded = false;
    QString token;
    // Before "pfctl -E": the references there were then. Should the service
    // die before it has recorded its own, that is the one that is new.
    bool enabling = false;
    QStringList knownReferences;
    Enforcement state = Enforcement::Unverified;
    QStringList problems;
    QTimer timer;
    bool routine = false; // a round's reads, logged only when they fail
};
