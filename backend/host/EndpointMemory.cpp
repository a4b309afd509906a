#include "backend/host/EndpointMemory.h"

#include "config/NetworkText.h"

#include <QJsonArray>

QString EndpointMemory::addressOf(const QString &name) const
{
    for (const auto &[known, address] : names) {
        if (known == name)
            return address;
    }
    return QString();
}

void EndpointMemory::remember(const QString &name, const QString &address)
{
    names.removeIf([&name](const QPair<QString, QString> &entry) { return entry.first == name; });
    names.prepend({name, address});
    if (names.size() > MaxNames)
        names.resize(MaxNames);
}

void EndpointMemory::write(QJsonObject *settings) const
{
    QJsonObject endpoints;
    QJsonArray order;
    for (const auto &[name, address] : names) {
        endpoints.insert(name, address);
        order.append(name);
    }
    if (endpoints.isEmpty())
        return;
    settings->insert(QStringLiteral("endpoints"), endpoints);
    settings->insert(QStringLiteral("endpointsUsed"), order);
}

void EndpointMemory::read(const QJsonObject &settings)
{
    names.clear();
    const QJsonObject endpoints = settings.value(QLatin1String("endpoints")).toObject();
    QStringList order;
    for (const QJsonValue &name : settings.value(QLatin1String("endpointsUsed")).toArray())
        order.append(name.toString());
    order += endpoints.keys();
    for (const QString &name : std::as_const(order)) {
        const QString address = endpoints.value(name).toString();
        if (names.size() < MaxNames && addressOf(name).isEmpty() && NetworkText::isHostName(name) &&
            NetworkText::isAddress(address))
            names.append({name, address});
    }
}
