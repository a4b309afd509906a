#include "backend/firewall/EndpointMemory.h"

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

void EndpointMemory::write(QJsonObject *, QJsonObject *settings) const
{
    QJsonObject addresses;
    QJsonArray order;
    for (const auto &[name, address] : names) {
        addresses.insert(name, address);
        order.append(name);
    }
    if (!addresses.isEmpty())
        settings->insert(QStringLiteral("endpoints"),
                         QJsonObject{{QStringLiteral("addresses"), addresses},
                                     {QStringLiteral("used"), order}});
}

void EndpointMemory::read(const QJsonObject &, const QJsonObject &settings)
{
    names.clear();
    const QJsonObject record = settings.value(QLatin1String("endpoints")).toObject();
    const QJsonObject addresses = record.value(QLatin1String("addresses")).toObject();
    QStringList order;
    for (const QJsonValue &name : record.value(QLatin1String("used")).toArray())
        order.append(name.toString());
    order += addresses.keys();
    for (const QString &name : std::as_const(order)) {
        const QString address = addresses.value(name).toString();
        if (names.size() < MaxNames && addressOf(name).isEmpty() && NetworkText::isHostName(name) &&
            NetworkText::isAddress(address))
            names.append({name, address});
    }
}
