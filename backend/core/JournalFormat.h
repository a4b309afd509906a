#pragma once

#include <QJsonObject>
#include <QString>

// The versions of the journal's two records. A release reads every record an
// earlier one wrote, from version 3 on, by taking it through each change of
// format in turn; the shape of what each version writes is kept beside the
// tests (tests/system/journal-fixtures), and a change of shape without a new
// version fails them. A record of a later release (a downgrade) is never
// dropped: its file is kept aside untouched, and what it records is undone
// only when that release said an earlier reader may ("undoableFrom").
namespace JournalFormat {

constexpr int Version = 4;
// The oldest release whose reader can undo what this one writes.
constexpr int UndoableFrom = 4;
// The first version any release still reads.
constexpr int OldestRead = 3;

struct Reading
{
    QJsonObject record;  // in this version's terms; empty when there is none to act on
    int version = 0;     // as written
    bool keepAside = false; // a later release's: its file is kept as it is
};

Reading read(const QJsonObject &record);
// Marks a record about to be written with this release's version.
void stamp(QJsonObject *record);

} // namespace JournalFormat
