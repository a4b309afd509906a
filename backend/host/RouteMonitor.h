#pragma once

#include <QObject>
#include <QProcess>
#include <QString>
#include <QTimer>

// Watches the routing table with macOS's own "route -n monitor" and says
// when a burst of changes has settled: the Mac joined another network, got
// a cable plugged in, or woke up somewhere else. A monitor that dies is
// started again, a bounded number of times.
class RouteMonitor : public QObject
{
    Q_OBJECT

public:
    static constexpr int SettleMs = 300;
    static constexpr int MaxRestarts = 5;
    static constexpr int RestartDelayMs = 1000;

    explicit RouteMonitor(QObject *parent = nullptr);
    ~RouteMonitor() override;

    void start(const QString &routeTool);
    void stop();

Q_SIGNALS:
    void settled();

private:
    void launch();
    void readEvents();
    void exited();

    QProcess process;
    QString program;
    QTimer settle;
    QTimer restart;
    QByteArray partial;
    int restarts = 0;
    bool running = false;
};
