#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

// How much the log takes about clients per second, in bytes. Any local user
// can open connections by the thousand and send a megabyte down each, and the
// log, on the system volume where the journal lives too, must not grow with
// them: beyond the budget, lines are counted instead, and the count is
// logged when the second is over, whether or not another client comes.
class LogBudget : public QObject
{
public:
    static constexpr qint64 BytesPerSecond = 16 * 1024;
    // What a line of a few words costs, besides its values.
    static constexpr qint64 LineBytes = 64;
    static constexpr int WindowMs = 1000;

    explicit LogBudget(QObject *parent = nullptr);

    bool allow(qint64 bytes = 0);

private:
    void summarise();

    QElapsedTimer window;
    QTimer summary;
    qint64 used = 0;
    qint64 suppressedLines = 0;
    qint64 suppressedBytes = 0;
};
