#include "backend/host/RouteEntry.h"

#include "config/NetworkText.h"

#include <QHostAddress>
#include <QRegularExpression>

bool RouteEntry::throughInterface() const
{
    return QHostAddress(via).isNull();
}

bool RouteEntry::isInterfaceName(const QString &text)
{
    static const QRegularExpression name(
        QRegularExpression::anchoredPattern(QStringLiteral("[a-z]+[0-9]+")));
    return name.match(text).hasMatch();
}

QJsonObject RouteEntry::toJson() const
{
    return {{QStringLiteral("family"), family},
            {QStringLiteral("destination"), destination},
            {QStringLiteral("type"), type},
            {QStringLiteral("via"), via}};
}

std::optional<RouteEntry> RouteEntry::fromJson(const QJsonObject &object)
{
    const RouteEntry route{object.value(QLatin1String("family")).toString(),
                           object.value(QLatin1String("destination")).toString(),
                           object.value(QLatin1String("type")).toString(),
                           object.value(QLatin1String("via")).toString()};
    const bool ipv6 = route.family == QLatin1String("inet6");
    const bool familyMatches = NetworkText::isRange(route.destination) &&
                               (ipv6 ? NetworkText::isIpv6Route(route.destination)
                                     : route.family == QLatin1String("inet") &&
                                           NetworkText::isIpv4Route(route.destination));
    const bool typeValid =
        route.type == QLatin1String("-net") || route.type == QLatin1String("-host");
    if (familyMatches && typeValid &&
        (NetworkText::isAddress(route.via) || isInterfaceName(route.via)))
        return route;
    return std::nullopt;
}
