#include "backend/firewall/KillSwitch.h"

#include "backend/BackendConstants.h"
#include "backend/core/CommandRunner.h"
#include "backend/firewall/PfctlReply.h"

#include <QDebug>
#include <QJsonArray>
#include <QRegularExpression>
#include <QThread>

namespace {

bool isToken(const QString &text)
{
    static const QRegularExpression digits(
        QRegularExpression::anchoredPattern(QStringLiteral("[0-9]{0,20}")));
    return digits.match(text).hasMatch();
}

const QString NotReached =
    QStringLiteral("the main ruleset does not reach the anchors under com.apple");

} // namespace

KillSwitch::KillSwitch(QString pfctlTool, std::function<bool(QString *)> record, QObject *parent)
    : QObject(parent), tool(std::move(pfctlTool)), saveJournal(std::move(record))
{
    timer.setInterval(RoundIntervalMs);
    connect(&timer, &QTimer::timeout, this, &KillSwitch::verify);
}

bool KillSwitch::pfctl(const QStringList &arguments, QString *output, QString *error,
                       const QByteArray &input) const
{
    const bool reading =
        arguments.contains(QLatin1String("-s")) || arguments.endsWith(QLatin1String("show"));
    return CommandRunner::run(tool, arguments, input, output, error, CommandTimeoutMs,
                              routine && reading ? CommandRunner::Log::FailuresOnly
                                                 : CommandRunner::Log::Everything);
}

bool KillSwitch::engage(const FirewallRules::Allowed &rules, QString *error)
{
    if (engaged && loaded && rules == allowed)
        return true;
    const bool wasInForce = engaged && loaded;
    const QList<QStringList> kills =
        FirewallRules::statesToKill(wasInForce ? &allowed : nullptr, rules);
    const bool enablingNow = token.isEmpty() && !enabling;
    // A block in force whose last round found nothing wrong is still so; any
    // other is checked as it begins.
    const bool checking = !wasInForce || state == Enforcement::Unverified;
    allowed = rules;
    engaged = true;
    if (enablingNow) {
        enabling = true;
        knownReferences = references();
    }
    if (!saveJournal(error) || !loadRules(error)) {
        if (error->isEmpty())
            *error = QStringLiteral("pfctl -f");
        return false;
    }
    loaded = true;
    if (enablingNow ? !enable(error) : checking && !pfEnabled(error))
        return false;
    killStates(kills);
    if (checking)
        round(AnchorReached);
    return true;
}

bool KillSwitch::loadRules(QString *error)
{
    // Without the optimiser, so that pf holds these very rules, in this
    // order, and prints them back as they were written. pfctl warns on
    // standard error that -f may flush rules, and exits 0.
    QString output;
    QString warning;
    if (pfctl({QStringLiteral("-o"), QStringLiteral("none"), QStringLiteral("-a"), KillSwitchAnchor,
               QStringLiteral("-f"), QStringLiteral("-")},
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

// "pfctl -k SOURCE -k DESTINATION" for each. A connection the rules still
// pass gets a new state from its next packet; the others stop here.
void KillSwitch::killStates(const QList<QStringList> &kills)
{
    for (const QStringList &kill : kills) {
        QStringList arguments;
        for (const QString &host : kill)
            arguments << QStringLiteral("-k") << host;
        pfctl(arguments, nullptr, nullptr);
    }
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
    if (!holdsPf())
        return QString();
    QString error;
    if (engaged || loaded) {
        if (!pfctl({QStringLiteral("-a"), KillSwitchAnchor, QStringLiteral("-F"),
                    QStringLiteral("all")},
                   nullptr, &error))
            return error.trimmed();
        loaded = false;
        engaged = false;
        watch();
        Q_EMIT enforcementChanged();
    }
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
        !PfctlReply::referenceGone(error)) {
        saveJournal(nullptr);
        return error.trimmed();
    }
    qInfo() << "[MacVpnBackend] kill switch off";
    enabling = false;
    token.clear();
    knownReferences.clear();
    allowed = FirewallRules::Allowed();
    state = Enforcement::Unverified;
    problems.clear();
    saveJournal(nullptr);
    return QString();
}

// Someone's "pfctl -d" voided every token, ours too: pf is enabled again
// under a new one, recorded first.
bool KillSwitch::pfEnabled(QString *problem)
{
    QString output;
    if (!pfctl({QStringLiteral("-s"), QStringLiteral("info")}, &output, nullptr)) {
        *problem = QStringLiteral("pfctl -s info did not answer");
        return false;
    }
    if (PfctlReply::isEnabled(output))
        return true;
    settle({QStringLiteral("pf disabled; enabling it again")});
    token.clear();
    knownReferences = references();
    enabling = true;
    QString error;
    if (!saveJournal(&error)) {
        enabling = false;
        knownReferences.clear();
    } else if (enable(&error)) {
        return true;
    }
    *problem = QStringLiteral("pf disabled, not enabled again: %1").arg(error);
    return false;
}

bool KillSwitch::rulesInForce(QString *problem)
{
    QString output;
    bool inForce = pfctl({QStringLiteral("-a"), KillSwitchAnchor, QStringLiteral("-s"),
                          QStringLiteral("rules")},
                         &output, nullptr) &&
                   PfctlReply::sameRules(output, FirewallRules::rules(allowed));
    for (const FirewallRules::Table &table : FirewallRules::tables(allowed)) {
        QString entries;
        inForce = inForce &&
                  pfctl({QStringLiteral("-a"), KillSwitchAnchor, QStringLiteral("-t"),
                         QLatin1String(table.name), QStringLiteral("-T"), QStringLiteral("show")},
                        &entries, nullptr) &&
                  PfctlReply::sameEntries(entries, table.entries);
    }
    if (inForce)
        return true;
    settle({QStringLiteral("the rules not in force; loading them again")});
    QString error;
    if (loadRules(&error))
        return true;
    *problem = QStringLiteral("rules not in force, not loaded again: %1").arg(error);
    return false;
}

// The checks asked for, each putting back what it may; then the verdict of
// the round. The main ruleset is the user's, or another program's, and is
// only reported on.
void KillSwitch::round(int checks)
{
    QStringList found;
    QString problem;
    bool reached = !problems.contains(NotReached);
    if ((checks & PfEnabled) && !pfEnabled(&problem))
        found << problem;
    if (checks & AnchorReached) {
        QString output;
        if (pfctl({QStringLiteral("-s"), QStringLiteral("rules")}, &output, nullptr))
            reached = PfctlReply::reachesAppleAnchors(output);
        else
            found << QStringLiteral("pfctl -s rules did not answer");
    }
    if ((checks & RulesLoaded) && !rulesInForce(&problem))
        found << problem;
    if (!reached)
        found << NotReached;
    settle(found);
}

// Said at once: what a round finds wrong, before it puts it right, and then
// the round's verdict.
void KillSwitch::settle(const QStringList &found)
{
    const Enforcement verdict = found.isEmpty()                    ? Enforcement::Enforced
                                : found == QStringList{NotReached} ? Enforcement::NotEnforced
                                                                   : Enforcement::Unverified;
    if (verdict == state && found == problems)
        return;
    if (verdict == Enforcement::Enforced)
        qInfo() << "[MacVpnBackend] kill switch verified";
    else
        qWarning().noquote() << "[MacVpnBackend] kill switch"
                             << (verdict == Enforcement::NotEnforced ? "not enforced:"
                                                                     : "not verified:")
                             << found.join(QLatin1String("; "));
    state = verdict;
    problems = found;
    Q_EMIT enforcementChanged();
}

// What a round finds wrong is said (settle), and what it puts right is
// logged as every change is; its reads are logged only when they fail.
KillSwitch::Enforcement KillSwitch::verify()
{
    if (!engaged)
        return Enforcement::Unverified;
    routine = true;
    round(EveryCheck);
    routine = false;
    return state;
}

void KillSwitch::watch()
{
    if (QThread::currentThread() != thread())
        return;
    if (!engaged)
        timer.stop();
    else if (!timer.isActive())
        timer.start();
}

QJsonObject KillSwitch::record() const
{
    if (!holdsPf())
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
    loaded = false;
    token = recordedToken;
    enabling = record.value(QLatin1String("enabling")).toBool();
    knownReferences = known;
    allowed = FirewallRules::Allowed();
    allowed.localNetworks = record.value(QLatin1String("allowLan")).toBool();
    return true;
}
