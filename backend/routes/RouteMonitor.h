#pragma once

#include <QElapsedTimer>
#include <QHash>
#include <QObject>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTimer>

// Watches the routing socket with macOS's own "route -n monitor" and says
// when a burst of messages that can change the way out has settled: the Mac
// joined another network, got a cable plugged in, lost a link, or woke up
// somewhere else. A Mac's routing socket also carries a steady stream of
// messages that change nothing of the kind (every "route get" anyone runs,
// new addresses, cloned and multicast routes, failed look-ups); those are
// read and dropped. A monitor that dies is started again, a bounded number
// of times in a row.
class RouteMonitor : public QObject
{
    Q_OBJECT

public:
    static constexpr int SettleMs = 300;
    // A burst that never ends is acted on this long after it began.
    static constexpr int MaxDelayMs = 2000;
    static constexpr int MaxRestarts = 5;
    static constexpr int RestartDelayMs = 1000;
    // A monitor that ran this long was healthy: its restarts start again at zero.
    static constexpr int HealthyMs = 60000;

    // What the messages since the last report can have changed.
    struct Changes
    {
        // A default route of either family, or a link that went up or down.
        bool wayOut = false;
        // The destinations of routes the kernel deleted or changed.
        QStringList touched;
    };

    explicit RouteMonitor(QObject *parent = nullptr);
    ~RouteMonitor() override;

    void start(const QString &routeTool);
    void stop();
    bool isRunning() const { return running; }
    Changes takeChanges();

Q_SIGNALS:
    void settled();

private:
    void launch();
    void readEvents();
    void readLine(const QByteArray &line);
    void note();
    void exited();

    QProcess process;
    QString program;
    QTimer settle;
    QTimer restart;
    QElapsedTimer burst;
    QElapsedTimer healthy;
    QByteArray partial;
    int restarts = 0;
    bool running = false;
    Changes pending;

    // The message being read, and the up and running state of each link seen.
    QByteArray type;
    int error = 0;
    QList<QByteArray> addressNames;
    QHash<int, bool> linkUp;
};
