#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

// The service's record of what it has changed on the host and not yet
// undone, kept on disk so that whatever happens to the process, the next
// start can undo it. The file is replaced atomically on every change; an
// empty record removes it.
//
// One instance of the service owns the journal at a time: it holds a lock
// beside the file for as long as it runs.
class HostJournal
{
public:
    explicit HostJournal(QString directory);
    ~HostJournal();
    HostJournal(const HostJournal &) = delete;
    HostJournal &operator=(const HostJournal &) = delete;

    // Takes the lock, waiting up to timeoutMs for another instance to let go.
    bool lock(int timeoutMs);

    // What the last run left behind; an empty object when there is nothing,
    // or nothing that can be trusted (the reason is logged).
    QJsonObject load();

    // Records the given state; skipped when it is what the disk already holds.
    bool save(const QJsonObject &state, QString *error);

private:
    bool prepareDirectory(QString *error);
    QString filePath() const;

    const QString directory;
    QByteArray saved; // what the file holds now; empty when there is no file
    bool directoryReady = false;
    int lockFd = -1;
};
