#pragma once

#include "backend/core/HostJournal.h"
#include "backend/core/HostRoom.h"

#include <QList>
#include <QStringList>

// The backend's journal: each room's record under its own name, written
// before any change it records, and taken over from an earlier run in this
// release's terms (JournalFormat). A later release's record is kept aside as
// it is; while one could not be moved, nothing is written over it.
class BackendJournal
{
public:
    BackendJournal(QString directory, QList<HostRoom *> rooms);

    // Locks the journal and hands each room what an earlier run left, once;
    // false while another instance keeps it.
    bool takeOver(int waitMs);
    HostJournal::Records records() const;
    bool save(QString *error);
    // A later release's records, in the user's words.
    QStringList left() const { return keptAside; }

private:
    void adopt(const HostJournal::Records &records);

    HostJournal files;
    const QList<HostRoom *> rooms;
    QStringList keptAside;
    bool taken = false;
    bool blocked = false;
};
