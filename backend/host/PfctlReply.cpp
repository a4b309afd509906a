#include "backend/host/PfctlReply.h"

#include <QRegularExpression>

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
        if (line.trimmed().startsWith(QLatin1String("anchor \"com.apple/*\"")))
            return true;
    }
    return false;
}

int ruleCount(const QString &standardOutput)
{
    return int(standardOutput.split(QLatin1Char('\n'), Qt::SkipEmptyParts).size());
}

bool referenceGone(const QString &standardError)
{
    return standardError.contains(QLatin1String("pfctl: pf not enabled")) ||
           standardError.contains(QLatin1String("pfctl: pf: token invalid"));
}

} // namespace PfctlReply
