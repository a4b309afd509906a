#include "backend/core/JournalFormat.h"

#include <QDebug>

namespace JournalFormat {

namespace {

// Each change of format adds a step here, from the version before it to its
// own, in the order the releases made them. Version 3 is the first.
QJsonObject migrated(const QJsonObject &record, int /*from*/)
{
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
