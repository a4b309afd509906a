#include "config/NetworkText.h"

#include <QHostAddress>
#include <QRegularExpression>

namespace NetworkText {

namespace {

bool isRouteOfProtocol(const QString &route, QAbstractSocket::NetworkLayerProtocol protocol,
                       int maxPrefix)
{
    const QString text = route.trimmed();
    if (text.isEmpty())
        return false;
    const qsizetype slash = text.indexOf(QLatin1Char('/'));
    if (slash >= 0) {
        bool ok = false;
        const int prefix = text.section(QLatin1Char('/'), 1, 1).toInt(&ok, 10);
        if (!ok || prefix < 0 || prefix > maxPrefix)
            return false;
    }
    const QString address = slash < 0 ? text : text.left(slash);
    return QHostAddress(address).protocol() == protocol;
}

} // namespace

bool isIpv4Route(const QString &text)
{
    return isRouteOfProtocol(text, QAbstractSocket::IPv4Protocol, 32);
}

bool isIpv6Route(const QString &text)
{
    return isRouteOfProtocol(text, QAbstractSocket::IPv6Protocol, 128);
}

bool isAddress(const QString &text)
{
    return text == text.trimmed() && !text.contains(QLatin1Char('/')) &&
           !QHostAddress(text).isNull();
}

bool isHostName(const QString &text)
{
    static const QRegularExpression label(
        QStringLiteral("^[A-Za-z0-9](?:[A-Za-z0-9-]{0,61}[A-Za-z0-9])?$"));
    static const QRegularExpression number(QStringLiteral("^[0-9]+$"));
    QString name = text;
    if (name.endsWith(QLatin1Char('.')))
        name.chop(1);
    const QStringList labels = name.split(QLatin1Char('.'));
    if (name.size() > 253 || labels.size() < 2 || number.match(labels.last()).hasMatch())
        return false;
    for (const QString &part : labels) {
        if (!label.match(part).hasMatch())
            return false;
    }
    return true;
}

} // namespace NetworkText
