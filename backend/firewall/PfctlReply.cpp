#include "backend/firewall/PfctlReply.h"

#include <QRegularExpression>

#include <arpa/inet.h>
#include <netdb.h>

namespace PfctlReply {

QString enableToken(const QString &standardError)
{
    static const QRegularExpression token(QStringLiteral("^Token : ([0-9]{1,20})$"),
                                          QRegularExpression::MultilineOption);
    return token.match(standardError).captured(1);
}

QStringList references(const QString &standardOutput)
{
    static const QRegularExpression row(
        QStringLiteral("^[0-9]+ .* ([0-9]{1,20}) +[0-9]+ days [0-9]+:[0-9]{2}:[0-9]{2}\\s*$"));
    QStringList tokens;
    for (const QString &line : standardOutput.split(QLatin1Char('\n'))) {
        if (const QRegularExpressionMatch match = row.match(line); match.hasMatch())
            tokens.append(match.captured(1));
    }
    return tokens;
}

bool isEnabled(const QString &standardOutput)
{
    return standardOutput.startsWith(QLatin1String("Status: Enabled"));
}

bool reachesAppleAnchors(const QString &standardOutput)
{
    for (const QString &line : standardOutput.split(QLatin1Char('\n'))) {
        const QStringList words = line.simplified().split(QLatin1Char(' '));
        if (line.trimmed().startsWith(QLatin1String("anchor \"com.apple/*\"")))
            return true;
        // "pass quick all", "pass out quick on en0 inet all …": nothing narrows it.
        const bool everything = words.contains(QLatin1String("all")) &&
                                !words.contains(QLatin1String("proto")) &&
                                !words.contains(QLatin1String("user")) &&
                                !words.contains(QLatin1String("group")) &&
                                !words.contains(QLatin1String("tagged"));
        const qsizetype on = words.indexOf(QLatin1String("on"));
        if (words.front() == QLatin1String("pass") && words.contains(QLatin1String("quick")) &&
            everything && (on < 0 || words.value(on + 1) != QLatin1String("lo0")))
            return false;
    }
    return false;
}

bool sameRules(const QString &standardOutput, const QStringList &rules)
{
    const QStringList lines = standardOutput.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    if (lines.size() != rules.size())
        return false;
    for (qsizetype i = 0; i < lines.size(); ++i) {
        QStringList words = lines[i].simplified().split(QLatin1Char(' '));
        const QByteArray protocol = words.value(words.indexOf(QLatin1String("proto")) + 1).toLatin1();
        // "port = domain": the name /etc/services gives the number, as
        // pfctl's printer took it from there.
        for (qsizetype at = 2; at < words.size(); ++at) {
            if (words[at - 2] != QLatin1String("port") || words[at - 1] != QLatin1String("="))
                continue;
            if (const servent *service = ::getservbyname(words[at].toLatin1().constData(),
                                                         protocol.constData()))
                words[at] = QString::number(ntohs(quint16(service->s_port)));
        }
        if (words.join(QLatin1Char(' ')) != rules[i])
            return false;
    }
    return true;
}

bool sameEntries(const QString &standardOutput, QStringList entries)
{
    QStringList shown = standardOutput.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (QString &line : shown)
        line = line.trimmed();
    shown.sort();
    entries.sort();
    return shown == entries;
}

bool referenceGone(const QString &standardError)
{
    return standardError.contains(QLatin1String("pfctl: pf not enabled")) ||
           standardError.contains(QLatin1String("pfctl: pf: token invalid"));
}

} // namespace PfctlReply
