#pragma once

#include <QElapsedTimer>

// How many lines about clients the log takes per second. Any local user can
// open connections by the thousand, and the log must not grow with them:
// beyond the budget, lines are counted instead, and the count is logged once
// the next second begins.
class LogBudget
{
public:
    static constexpr int LinesPerSecond = 100;

    bool allow();

private:
    QElapsedTimer window;
    int used = 0;
    int suppressed = 0;
};
