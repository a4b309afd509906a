#include "backend/host/KillSwitch.h"

#include "backend/BackendConstants.h"
#include "backend/core/CommandRunner.h"
#include "backend/host/PfctlReply.h"

#include <QDateTime>
#include <QDebug>
#include <QJsonArray>
#include <QRegularExpression>
#include <QThread>

namespace {

// Slept, if the wall clock ran this much further than the monotonic one.
constexpr qint64 SleepGapMs = 5000;

bool isToken(const QString &text)
{
    static const QRegularExpression digits(
        QRegularExpression::anchoredPattern(QStringLiteral("[0-9]{0,20}")));
    return digits.match(text).hasMatch();
}

} // namespace

KillSwitch::KillSwitch(QString pfctlTool, std::function<bool(QString *)> record, QObject *parent)
    : QObject(parent), tool(std::move(pfctlTool)), saveJournal(std::move(record))
{
    timer.setInterval(CheckIntervalMs);
    connect(&timer, &QTimer::timeout, this, &KillSwitch::periodicCheck);
}

bool KillSwitch::pfctl(const QStringList &arguments, QString *output, QString *error,
                       const QByteArray &input) const
{
    return CommandRunner::run(tool, arguments, input, output, error, CommandTimeoutMs);
}

bool KillSwitch::engage(const FirewallRules::Allowed &rules, QString *error)
{
    if (engaged && !stale && rules == allowed)
        return true;
    const bool enablingNow = !engaged;
    const bool killing = rules.tunnelInterface.isEmpty() &&
                         (!engaged || stale || !allowed.tunnelInterface.isEmpty());
    allowed = rules;
    engaged = true;
    stale = false;
    if (enablingNow) {
        enabling = true;
        knownReferences = references();
    }
    // Already engaged, pf may have been disabled since by someone's "pfctl -d".
    if (!saveJournal(error) || !loadRules(error) ||
        !(enablingNow ? enable(error) : check(PfEnabled))) {
        if (error->isEmpty())
            *error = QStringLiteral("pfctl -s info");
        return false;
    }
    if (killing)
        killStates();
    // Loaded and enabled just now: what is left to see is whether the main
    // ruleset still reaches the anchor.
    check(AnchorReached);
    setState(reached ? Enforcement::Enforced : Enforcement::NotEnforced);
    return true;
}

bool KillSwitch::loadRules(QString *error)
{
    // pfctl warns on standard error that -f may flush rules, and exits 0.
    QString output;
    QString warning;
    if (pfctl({QStringLiteral("-a"), KillSwitchAnchor, QStringLiteral("-f"), QStringLiteral("-")},
              &output, &warning, FirewallRules::text(allowed)))
        return true;
    *error = warning.trimmed().section(QLatin1Char('\n'), -2);
    return false;
}

bool KillSwitch::enable(QString *error)
{
    QString output;
    QString said;
    const bool enabled = pfctl({QStringLiteral("-E")}, &output, &said);
    token = PfctlReply::enableToken(said);
    enabling = token.isEmpty();
    saveJournal(nullptr);
    if (enabled && !token.isEmpty())
        return true;
    *error = (output + said).trimmed();
    return false;
}

// By source: every IPv4 and every IPv6 state. A connection the rules still
// pass gets a new state from its next packet; the others stop here.
void KillSwitch::killStates()
{
    for (const char *everyone : {"0.0.0.0/0", "::/0"})
        pfctl({QStringLiteral("-k"), QLatin1String(everyone)}, nullptr, nullptr);
}

QStringList KillSwitch::references() const
{
    QString output;
    pfctl({QStringLiteral("-s"), QStringLiteral("References")}, &output, nullptr);
    return PfctlReply::references(output);
}

// The anchor emptied, then our reference given back. One that pf no longer
// knows (someone ran "pfctl -d", or the Mac restarted) has nothing left to
// give back. One that pf handed out while the service died before recording
// it is the one new since; should there be more than one, none is taken.
QString KillSwitch::lift()
{
    if (!engaged)
        return QString();
    QString error;
    if (!pfctl(
            {QStringLiteral("-a"), KillSwitchAnchor, QStringLiteral("-F"), QStringLiteral("all")},
            nullptr, &error))
        return error.trimmed();
    if (token.isEmpty() && enabling) {
        QStringList added = references();
        for (const QString &known : std::as_const(knownReferences))
            added.removeAll(known);
        if (added.size() == 1)
            token = added.front();
        else if (!added.isEmpty())
            qWarning() << "[MacVpnBackend] pf reference of ours not told from others'" << added;
    }
    if (!token.isEmpty() && !pfctl({QStringLiteral("-X"), token}, nullptr, &error) &&
        !PfctlReply::referenceGone(error))
        return error.trimmed();
    qInfo() << "[MacVpnBackend] kill switch off";
    engaged = false;
    enabling = false;
    token.clear();
    knownReferences.clear();
    allowed = FirewallRules::Allowed();
    state = Enforcement::Unverified;
    saveJournal(nullptr);
    watch();
    return QString();
}

// A check that finds something missing puts it back; the main ruleset is
// the user's, or another program's, and is only reported on.
bool KillSwitch::check(Check which)
{
    QString output;
    QString error;
    switch (which) {
    case PfEnabled:
        if (!pfctl({QStringLiteral("-s"), QStringLiteral("info")}, &output, nullptr))
            return false;
        if (PfctlReply::isEnabled(output))
            return true;
        qWarning() << "[MacVpnBackend] pf was disabled under the kill switch; enabling it again";
        enabling = true;
        knownReferences = references();
        token.clear();
        return saveJournal(&error) && enable(&error);
    case AnchorReached:
        if (!pfctl({QStringLiteral("-s"), QStringLiteral("rules")}, &output, nullptr))
            return false;
        if (reached && !PfctlReply::reachesAppleAnchors(output))
            qWarning() << "[MacVpnBackend] kill switch not enforced: the main ruleset no longer "
                          "evaluates the anchors under com.apple";
        reached = PfctlReply::reachesAppleAnchors(output);
        return true;
    case RulesLoaded:
        if (pfctl({QStringLiteral("-a"), KillSwitchAnchor, QStringLiteral("-s"),
                   QStringLiteral("rules")},
                  &output, nullptr) &&
            PfctlReply::ruleCount(output) == FirewallRules::rules(allowed).size())
            return true;
        qWarning() << "[MacVpnBackend] the kill switch's rules were gone; loading them again";
        return loadRules(&error);
    case Checks:
        break;
    }
    return false;
}

KillSwitch::Enforcement KillSwitch::verify()
{
    if (!engaged)
        return Enforcement::Unverified;
    bool checked = true;
    for (const Check which : {PfEnabled, AnchorReached, RulesLoaded})
        checked = check(which) && checked;
    setState(!checked ? Enforcement::Unverified
                      : (reached ? Enforcement::Enforced : Enforcement::NotEnforced));
    return state;
}

void KillSwitch::setState(Enforcement enforcement)
{
    if (enforcement == state)
        return;
    state = enforcement;
    Q_EMIT enforcementChanged();
}

void KillSwitch::watch()
{
    if (QThread::currentThread() != thread())
        return;
    if (!engaged) {
        timer.stop();
        return;
    }
    if (!timer.isActive()) {
        awake.start();
        wallAtCheck = QDateTime::currentMSecsSinceEpoch();
        timer.start();
    }
}

// After a sleep everything may have changed: all three checks. Otherwise
// one, so that an idle service asks pfctl once a minute.
void KillSwitch::periodicCheck()
{
    const qint64 wall = QDateTime::currentMSecsSinceEpoch();
    const bool slept = wall - wallAtCheck > awake.restart() + SleepGapMs;
    wallAtCheck = wall;
    if (slept) {
        qInfo() << "[MacVpnBackend] the Mac woke: checking the kill switch";
        verify();
        return;
    }
    const Check which = Check(nextCheck);
    nextCheck = (nextCheck + 1) % Checks;
    const bool checked = check(which);
    setState(!checked ? Enforcement::Unverified
                      : (reached ? Enforcement::Enforced : Enforcement::NotEnforced));
}

QJsonObject KillSwitch::record() const
{
    if (!engaged)
        return QJsonObject();
    return {{QStringLiteral("anchor"), QString(KillSwitchAnchor)},
            {QStringLiteral("token"), token},
            {QStringLiteral("enabling"), enabling},
            {QStringLiteral("knownTokens"), QJsonArray::fromStringList(knownReferences)},
            {QStringLiteral("allowLan"), allowed.localNetworks}};
}

bool KillSwitch::adopt(const QJsonObject &record)
{
    const QString recordedToken = record.value(QLatin1String("token")).toString();
    bool valid = record.value(QLatin1String("anchor")) == QString(KillSwitchAnchor) &&
                 isToken(recordedToken);
    QStringList known;
    for (const QJsonValue &value : record.value(QLatin1String("knownTokens")).toArray()) {
        valid = valid && isToken(value.toString());
        known.append(value.toString());
    }
    if (!valid)
        return false;
    engaged = true;
    stale = true;
    token = recordedToken;
    enabling = record.value(QLatin1String("enabling")).toBool();
    knownReferences = known;
    allowed = FirewallRules::Allowed();
    allowed.localNetworks = record.value(QLatin1String("allowLan")).toBool();
    return true;
}
