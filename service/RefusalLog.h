#pragma once

#include <QElapsedTimer>
#include <QHash>
#include <QObject>
#include <QString>
#include <QTimer>

#include <sys/types.h>

// Who was refused a command is what a security reviewer looks for, so that
// line, with the caller's uid, never goes through the shared log budget.
// A user whose refusals flood gets one line a second: the first refusal, and
// when the second is over, how many more there were.
class RefusalLog : public QObject
{
public:
    static constexpr int WindowMs = 1000;
    // Users with a second under way; each is an account of the machine.
    static constexpr int MaxUsers = 256;

    explicit RefusalLog(QObject *parent = nullptr);

    void refused(const QString &command, uid_t uid);

private:
    struct Window
    {
        QElapsedTimer since;
        // By command: only the commanding ones are ever refused, so a few.
        QHash<QString, qint64> more;
    };
    void summarise();

    QHash<uid_t, Window> windows;
    QTimer timer;
};
