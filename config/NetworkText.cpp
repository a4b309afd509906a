#include "config/NetworkText.h"

#include <QHostAddress>
#include <QRegularExpression>

namespace NetworkText {

namespace {

// The whole text, never a part of it: no line, NUL or blank can follow a
// match ('$' alone would let a final line feed through).
bool matchesWhole(const QRegularExpression &expression, const QString &text)
{
    return expression.match(text).hasMatch();
}

const QRegularExpression DottedQuad(QRegularExpression::anchoredPattern(
    QStringLiteral("(?:(?:25[0-5]|2[0-4][0-9]|1[0-9][0-9]|[1-9]?[0-9])\\.){3}"
                   "(?:25[0-5]|2[0-4][0-9]|1[0-9][0-9]|[1-9]?[0-9])")));
// Hexadecimal groups and colons, perhaps ending in a dotted quad; no scope.
const QRegularExpression Ipv6Characters(
    QRegularExpression::anchoredPattern(QStringLiteral("[0-9A-Fa-f:]*:[0-9A-Fa-f:.]*")));
const QRegularExpression Prefix(QRegularExpression::anchoredPattern(QStringLiteral("[0-9]{1,3}")));

bool isIpv6Literal(const QString &text)
{
    if (!matchesWhole(Ipv6Characters, text) ||
        QHostAddress(text).protocol() != QAbstractSocket::IPv6Protocol)
        return false;
    const QString last = text.section(QLatin1Char(':'), -1);
    return !last.contains(QLatin1Char('.')) || matchesWhole(DottedQuad, last);
}

// An address of the family, alone or with one slash and a prefix in range.
bool isRoute(const QString &route, bool ipv6)
{
    const QString text = route.trimmed();
    const QStringList parts = text.split(QLatin1Char('/'));
    if (parts.size() > 2)
        return false;
    if (parts.size() == 2 &&
        (!matchesWhole(Prefix, parts[1]) || parts[1].toInt() > (ipv6 ? 128 : 32)))
        return false;
    return ipv6 ? isIpv6Literal(parts[0]) : matchesWhole(DottedQuad, parts[0]);
}

} // namespace

bool isIpv4Route(const QString &text)
{
    return isRoute(text, false);
}

bool isIpv6Route(const QString &text)
{
    return isRoute(text, true);
}

bool isRange(const QString &text)
{
    return text == text.trimmed() && (isIpv4Route(text) || isIpv6Route(text));
}

bool isAddress(const QString &text)
{
    return matchesWhole(DottedQuad, text) || isIpv6Literal(text);
}

bool isHostName(const QString &text)
{
    static const QRegularExpression label(QRegularExpression::anchoredPattern(
        QStringLiteral("[A-Za-z0-9](?:[A-Za-z0-9-]{0,61}[A-Za-z0-9])?")));
    static const QRegularExpression number(
        QRegularExpression::anchoredPattern(QStringLiteral("[0-9]+")));
    QString name = text;
    if (name.endsWith(QLatin1Char('.')))
        name.chop(1);
    const QStringList labels = name.split(QLatin1Char('.'));
    if (name.size() > 253 || labels.size() < 2 || matchesWhole(number, labels.last()))
        return false;
    for (const QString &part : labels) {
        if (!matchesWhole(label, part))
            return false;
    }
    return true;
}

} // namespace NetworkText
