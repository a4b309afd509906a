#include "backend/core/JournalFormat.h"

#include "backend/routes/RouteEntry.h"

#include <QDebug>
#include <QJsonArray>

namespace JournalFormat {

namespace {

// Version 4 gave each room of the backend its record under its own name,
// and the routes in runs by the same way.
QJsonObject fourFromThree(const QJsonObject &three)
{
    QJsonObject four;
    for (const char *kept : {"boot", "tunnel", "hostsBlock", "alwaysOn"}) {
        if (three.contains(QLatin1String(kept)))
            four.insert(QLatin1String(kept), three.value(QLatin1String(kept)));
    }
    QJsonObject routes;
    if (three.contains(QLatin1String("bypassRoutes"))) {
        routes.insert(QStringLiteral("gateway"), three.value(QLatin1String("gateway")));
        routes.insert(QStringLiteral("bypass"), three.value(QLatin1String("bypassRoutes")));
    }
    if (three.contains(QLatin1String("serverRoute")))
        routes.insert(QStringLiteral("server"), three.value(QLatin1String("serverRoute")));
    QList<RouteEntry> installed;
    for (const QJsonValue &route : three.value(QLatin1String("routes")).toArray())
        installed.append(RouteEntry{QString(), route[QLatin1String("destination")].toString(),
                                    QString(), route[QLatin1String("via")].toString()});
    if (!installed.isEmpty())
        routes.insert(QStringLiteral("installed"), RouteEntry::toRuns(installed));
    if (three.contains(QLatin1String("pendingRoutes")))
        routes.insert(QStringLiteral("pending"), three.value(QLatin1String("pendingRoutes")));
    if (!routes.isEmpty())
        four.insert(QStringLiteral("routes"), routes);
    if (three.contains(QLatin1String("killSwitch")) || three.contains(QLatin1String("pendingFirewall"))) {
        QJsonObject firewall = three.value(QLatin1String("killSwitch")).toObject();
        if (three.contains(QLatin1String("pendingFirewall")))
            firewall.insert(QStringLiteral("pending"), three.value(QLatin1String("pendingFirewall")));
        four.insert(QStringLiteral("firewall"), firewall);
    }
    QJsonObject dns;
    for (const auto &[from, to] : {std::pair{"dns", "saved"}, {"tunnelDns", "tunnel"}, {"pendingDns", "pending"}}) {
        if (three.contains(QLatin1String(from)))
            dns.insert(QLatin1String(to), three.value(QLatin1String(from)));
    }
    if (!dns.isEmpty())
        four.insert(QStringLiteral("dns"), dns);
    if (three.contains(QLatin1String("endpoints")))
        four.insert(QStringLiteral("endpoints"),
                    QJsonObject{{QStringLiteral("addresses"), three.value(QLatin1String("endpoints"))},
                                {QStringLiteral("used"), three.value(QLatin1String("endpointsUsed"))}});
    return four;
}

// Each change of format adds a step here, from the version before it to its
// own, in the order the releases made them. Version 3 is the first.
QJsonObject migrated(QJsonObject record, int from)
{
    if (from < 4)
        record = fourFromThree(record);
    return record;
}

} // namespace

Reading read(const QJsonObject &record)
{
    Reading reading;
    if (record.isEmpty())
        return reading;
    reading.version = record.value(QLatin1String("version")).toInt();
    if (reading.version >= OldestRead && reading.version <= Version) {
        reading.record = migrated(record, reading.version);
        return reading;
    }
    if (reading.version > Version) {
        reading.keepAside = true;
        const int undoable = record.value(QLatin1String("undoableFrom")).toInt(reading.version);
        if (undoable <= Version)
            reading.record = record;
        qWarning() << "[MacVpnBackend] journal of a later release, version" << reading.version
                   << (undoable <= Version ? "(undone as far as this release reads it)"
                                           : "(not read by this release)");
        return reading;
    }
    qWarning() << "[MacVpnBackend] journal entry ignored: unknown version"
               << record.value(QLatin1String("version"));
    return reading;
}

void stamp(QJsonObject *record)
{
    record->insert(QStringLiteral("version"), Version);
    record->insert(QStringLiteral("undoableFrom"), UndoableFrom);
}

} // namespace JournalFormat
