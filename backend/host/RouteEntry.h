#pragma once

#include <QJsonObject>
#include <QString>

#include <optional>

// One route the service added into or around the tunnel.
struct RouteEntry
{
    QString family;
    QString destination;
    QString type;
    QString via; // the gateway or the interface it points at

    bool throughInterface() const;
    static bool isInterfaceName(const QString &text);
    QJsonObject toJson() const;
    // A route the service could have added itself, or nothing: a damaged or
    // forged journal must never make it run a command it would not have.
    static std::optional<RouteEntry> fromJson(const QJsonObject &object);
};
