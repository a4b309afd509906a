#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

// The service's record of what it has changed on the host and not yet
// undone, kept on disk so that whatever happens to the process, the next
// start can undo it. Two files, by what a power cut does to what they record:
//   session   what a reboot takes away anyway (routes, the tunnel program,
//             firewall rules): written atomically but not flushed, since a
//             crash of the process leaves it intact and a power cut leaves
//             nothing for it to describe.
//   settings  what outlasts a reboot (DNS servers, the hosts block): flushed
//             to stable storage before the change it records is made.
// Each file is replaced atomically when it changes; an empty record removes it.
//
// One instance of the service owns the journal at a time: it holds a lock
// beside the files for as long as it runs.
class HostJournal
{
public:
    struct Records
    {
        QJsonObject session;
        QJsonObject settings;
        bool isEmpty() const { return session.isEmpty() && settings.isEmpty(); }
    };

    explicit HostJournal(QString directory);
    ~HostJournal();
    HostJournal(const HostJournal &) = delete;
    HostJournal &operator=(const HostJournal &) = delete;

    // Takes the lock, waiting up to timeoutMs for another instance to let go.
    bool lock(int timeoutMs);

    // What the last run left behind; empty objects when there is nothing, or
    // nothing that can be trusted (the reason is logged). Temporary files of
    // a write cut short are removed.
    Records load();

    // Records the state; a file whose bytes would not change is not written.
    bool save(const Records &records, QString *error);

    // A record this release must not write over (a later release's) is
    // kept beside, untouched, under its version: "session.v4.json". Returns
    // that name, or empty when it could not be moved.
    enum class Record { Session, Settings };
    QString keepAside(Record which, int version);

private:
    struct File
    {
        const char *name;
        QByteArray saved; // what the file holds now; empty when there is none
    };
    bool prepareDirectory(QString *error);
    QString filePath(const File &file) const;
    QJsonObject load(File &file);
    bool save(File &file, const QJsonObject &state, bool durable, QString *error);

    const QString directory;
    File session{"session.json", {}};
    File settings{"settings.json", {}};
    bool directoryReady = false;
    int lockFd = -1;
};
