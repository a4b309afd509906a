#pragma once

#include "backend/MacHostEnvironment.h"

#include <QElapsedTimer>
#include <QHash>
#include <QObject>
#include <QSocketNotifier>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <memory>
#include <optional>

// Listens on a routing socket of its own and says when a burst of messages
// that can change the way out has settled: the Mac joined another network,
// got a cable plugged in, lost a link, or woke up somewhere else. Every
// routing socket hears every message: every "route get" anyone runs, new
// addresses, cloned and multicast routes, failed look-ups, and the service's
// own writes (by its pid); those are read and dropped. A socket that fails
// is opened again, a bounded number of times in a row.
class RouteMonitor : public QObject
{
    Q_OBJECT

public:
    static constexpr int SettleMs = 300;
    // A burst that never ends is acted on this long after it began.
    static constexpr int MaxDelayMs = 2000;
    static constexpr int MaxRestarts = 5;
    static constexpr int RestartDelayMs = 1000;
    // A socket that lasted this long was healthy: its restarts start again at zero.
    static constexpr int HealthyMs = 60000;

    // What the messages since the last report can have changed.
    struct Changes
    {
        // A default route of either family, or a link that went up or down.
        bool wayOut = false;
        // The destinations of routes someone else deleted or changed.
        QStringList touched;
        // A route someone else added (the kernel's own clones aside).
        bool added = false;
    };

    explicit RouteMonitor(const MacHostEnvironment &host, QObject *parent = nullptr);
    ~RouteMonitor() override;

    void start();
    void stop();
    bool isRunning() const { return running; }
    Changes takeChanges();

Q_SIGNALS:
    void settled();

private:
    void open();
    void close();
    void readMessages();
    void note();
    void failed();

    const MacHostEnvironment &host;
    int listener = -1;
    std::unique_ptr<QSocketNotifier> notifier;
    QTimer settle;
    QTimer restart;
    QElapsedTimer burst;
    QElapsedTimer healthy;
    int restarts = 0;
    bool running = false;
    Changes pending;
    QHash<int, bool> linkUp; // the up and running state of each link seen
    // The kernel drops what does not fit a listener's buffer and says
    // nothing; a gap in our own writes' sequence is the sign of it.
    std::optional<int> lastOwnSeq;
};
