#include "backend/core/BackendJournal.h"

#include "backend/core/BootSession.h"
#include "backend/core/JournalFormat.h"

#include <QCoreApplication>
#include <QDebug>

namespace {

QString translated(const char *text)
{
    return QCoreApplication::translate("MacVpnBackend", text);
}

} // namespace

BackendJournal::BackendJournal(QString directory, QList<HostRoom *> rooms)
    : files(std::move(directory)), rooms(std::move(rooms))
{
}

bool BackendJournal::takeOver(int waitMs)
{
    if (taken)
        return true;
    if (!files.lock(waitMs))
        return false;
    adopt(files.load());
    taken = true;
    return true;
}

HostJournal::Records BackendJournal::records() const
{
    HostJournal::Records records;
    for (const HostRoom *room : rooms)
        room->write(&records.session, &records.settings);
    if (!records.session.isEmpty()) {
        JournalFormat::stamp(&records.session);
        records.session.insert(QStringLiteral("boot"), BootSession::current());
    }
    if (!records.settings.isEmpty())
        JournalFormat::stamp(&records.settings);
    return records;
}

bool BackendJournal::save(QString *error)
{
    QString reason = blocked ? translated("запись более новой версии службы не отложена") : QString();
    if (reason.isEmpty() && files.save(records(), &reason))
        return true;
    qWarning() << "[MacVpnBackend] journal not written" << reason;
    if (error)
        *error = reason;
    return false;
}

// What the session recorded vanished with an earlier boot, and is only dropped.
void BackendJournal::adopt(const HostJournal::Records &records)
{
    const auto read = [this](const QJsonObject &record, HostJournal::Record which) {
        const JournalFormat::Reading reading = JournalFormat::read(record);
        if (!reading.keepAside)
            return reading.record;
        const QString aside = files.keepAside(which, reading.version);
        keptAside.append(
            aside.isEmpty()
                ? translated("запись версии %1 не удалось отложить").arg(reading.version)
                : translated("запись версии %1 оставлена как %2%3")
                      .arg(reading.version)
                      .arg(aside, reading.record.isEmpty() ? translated(", не отменена") : QString()));
        qWarning().noquote() << "[MacVpnBackend] journal:" << keptAside.constLast();
        blocked = blocked || aside.isEmpty();
        return reading.record;
    };
    QJsonObject session = read(records.session, HostJournal::Record::Session);
    const QJsonObject settings = read(records.settings, HostJournal::Record::Settings);
    const QString boot = BootSession::current();
    if (!session.isEmpty() && (boot.isEmpty() || session.value(QLatin1String("boot")) != boot)) {
        qInfo() << "[MacVpnBackend] routes, tunnel program and pf rules of an earlier boot are "
                   "gone with it; their record is dropped";
        session = QJsonObject();
    }
    for (HostRoom *room : rooms)
        room->read(session, settings);
}
