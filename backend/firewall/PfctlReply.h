#pragma once

#include <QString>
#include <QStringList>

// What pfctl(8) answered, read as macOS's pfctl prints it: its messages on
// standard error (a token included), its tables on standard output.
namespace PfctlReply {

// The token of "pfctl -E": "Token : 15053025338191571182" on standard error,
// after "pf enabled" (and, on older releases, lines about ALTQ). Empty when
// there is none.
QString enableToken(const QString &standardError);

// The tokens of "pfctl -s References", newest first: a row of the TOKENS
// table ends with the token and its age ("0 days 00:00:00"); a process name
// may hold blanks. None for "No pf starter references held".
QStringList references(const QString &standardOutput);

// "pfctl -s info" begins "Status: Enabled …" or "Status: Disabled …".
bool isEnabled(const QString &standardOutput);

// Whether the main ruleset ("pfctl -s rules") still evaluates the anchors
// under com.apple/, as the stock /etc/pf.conf makes it: someone's "pfctl -F
// all" or "-f other.conf" takes that line, and with it every such anchor.
// A "pass … quick" rule for all traffic before it decides for everything it
// matches, and the anchors are never asked.
bool reachesAppleAnchors(const QString &standardOutput);

// Whether the rules "pfctl -a ANCHOR -s rules" lists are these, in this
// order: pfctl prints them one a line, a port by its service name where it
// has one.
bool sameRules(const QString &standardOutput, const QStringList &rules);

// Whether "pfctl -a ANCHOR -t TABLE -T show" lists these entries and no
// others, one a line, in whatever order.
bool sameEntries(const QString &standardOutput, QStringList entries);

// "pfctl -X": pf has been disabled since (by anyone's "pfctl -d", which
// voids every token) or the token is unknown: nothing is left to give back.
bool referenceGone(const QString &standardError);

} // namespace PfctlReply
