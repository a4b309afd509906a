#pragma once

#include <QJsonArray>
#include <QList>
#include <QString>

#include <optional>

// One route the service added into or around the tunnel: its family and
// kind follow from the destination ("-host" for an address, "-net" for a
// range), and it goes by a gateway address or through an interface.
struct RouteEntry
{
    QString family;
    QString destination;
    QString type;
    QString via; // the gateway or the interface it points at

    static RouteEntry to(const QString &destination, const QString &via);
    // A route the service could have added itself, or nothing: a damaged or
    // forged journal must never make it run a command it would not have.
    static std::optional<RouteEntry> checked(const QString &destination, const QString &via);
    bool throughInterface() const;
    bool operator==(const RouteEntry &other) const;
    static bool isInterfaceName(const QString &text);

    // In the journal: runs of routes by the same way, in order, so that tens
    // of thousands of them stay small and come back in the order they went in.
    static QJsonArray toRuns(const QList<RouteEntry> &routes);
    static QList<RouteEntry> fromRuns(const QJsonArray &runs);
};
