#pragma once

#include "backend/core/HostRoom.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QVariantList>

// Undo steps that failed are kept by their rooms, with their last error, in
// the journal, and tried again at the next clean-up, at the next start, and
// on this back-off while the service idles; until then the status names
// what is left. Each attempt first asks whether the step is still the
// service's to undo: what the user or another program has made its own
// since is left alone.
class PendingUndo : public QObject
{
    Q_OBJECT

public:
    // In the order their steps are named and tried.
    explicit PendingUndo(QList<HostRoom *> rooms, QObject *parent = nullptr);

    bool isEmpty() const { return steps().isEmpty(); }
    // Each {what, error}, for "details".
    QVariantList steps() const;
    // What is left, in the user's words.
    QString message() const;
    void retry();

    // After 10 s, 30 s, 1, 2 and 5 min; afterwards at the next clean-up or start.
    void schedule(bool afresh);

Q_SIGNALS:
    void due();

private:
    const QList<HostRoom *> rooms;
    QTimer timer;
    int retries = 0;
};
