#pragma once

#include <QList>
#include <QString>

// Tells one process from another that later gets the same pid: the boot and
// the moment the process started. (Not the program: a launcher may exec
// another.) Empty when no live process has that pid; a zombie counts as gone.
namespace ProcessIdentity {

QString of(qint64 pid);

// The live processes started from the program (its executable, or the
// script an interpreter runs) that nobody waits for any more: their parent
// is gone and pid 1 took them over.
QList<qint64> orphansOf(const QString &program);

// How long ago the process started, in milliseconds, as the kernel keeps it;
// -1 when unknown.
qint64 ageMs(qint64 pid);

} // namespace ProcessIdentity
