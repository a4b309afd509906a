#include "backend/routes/RouteEntry.h"

#include "backend/core/JournalValues.h"
#include "config/NetworkText.h"

#include <QHostAddress>
#include <QJsonObject>
#include <QRegularExpression>

RouteEntry RouteEntry::to(const QString &destination, const QString &via)
{
    return {NetworkText::isIpv6Route(destination) ? QStringLiteral("inet6") : QStringLiteral("inet"),
            destination,
            destination.contains(QLatin1Char('/')) ? QStringLiteral("-net") : QStringLiteral("-host"),
            via};
}

// A gateway is an address, a link-local one with its interface: "fe80::1%en0".
std::optional<RouteEntry> RouteEntry::checked(const QString &destination, const QString &via)
{
    const QString scope = via.section(QLatin1Char('%'), 1);
    const bool gateway = NetworkText::isAddress(via.section(QLatin1Char('%'), 0, 0)) &&
                         (scope.isEmpty() || isInterfaceName(scope));
    if (NetworkText::isRange(destination) && (gateway || isInterfaceName(via)))
        return to(destination, via);
    return std::nullopt;
}

bool RouteEntry::throughInterface() const
{
    return QHostAddress(via.section(QLatin1Char('%'), 0, 0)).isNull();
}

bool RouteEntry::operator==(const RouteEntry &other) const
{
    return destination == other.destination && via == other.via;
}

bool RouteEntry::isInterfaceName(const QString &text)
{
    static const QRegularExpression name(
        QRegularExpression::anchoredPattern(QStringLiteral("[a-z]+[0-9]+")));
    return name.match(text).hasMatch();
}

QJsonArray RouteEntry::toRuns(const QList<RouteEntry> &routes)
{
    QJsonArray runs;
    QJsonArray destinations;
    QString via;
    const auto close = [&] {
        if (!destinations.isEmpty())
            runs.append(QJsonObject{{QStringLiteral("via"), via}, {QStringLiteral("to"), destinations}});
        destinations = QJsonArray();
    };
    for (const RouteEntry &route : routes) {
        if (route.via != via)
            close();
        via = route.via;
        destinations.append(route.destination);
    }
    close();
    return runs;
}

QList<RouteEntry> RouteEntry::fromRuns(const QJsonArray &runs)
{
    QList<RouteEntry> routes;
    for (const QJsonValue &run : runs) {
        const QString via = run[QLatin1String("via")].toString();
        for (const QJsonValue &destination : run[QLatin1String("to")].toArray()) {
            if (const auto route = checked(destination.toString(), via))
                routes.append(*route);
            else
                JournalValues::ignored("route", QJsonObject{{destination.toString(), via}});
        }
    }
    return routes;
}
