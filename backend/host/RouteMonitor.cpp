#include "backend/host/RouteMonitor.h"

#include <QDebug>

namespace {

// A line longer than this is no event line; what is kept of it is bounded.
constexpr qsizetype MaxLineBytes = 4096;
constexpr int StopTimeoutMs = 2000;

} // namespace

RouteMonitor::RouteMonitor(QObject *parent) : QObject(parent)
{
    settle.setSingleShot(true);
    settle.setInterval(SettleMs);
    connect(&settle, &QTimer::timeout, this, &RouteMonitor::settled);
    restart.setSingleShot(true);
    restart.setInterval(RestartDelayMs);
    connect(&restart, &QTimer::timeout, this, &RouteMonitor::launch);
    process.setProcessChannelMode(QProcess::MergedChannels);
    connect(&process, &QProcess::readyReadStandardOutput, this, &RouteMonitor::readEvents);
    connect(&process, &QProcess::finished, this, &RouteMonitor::exited);
    connect(&process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            exited();
    });
}

RouteMonitor::~RouteMonitor()
{
    stop();
}

void RouteMonitor::start(const QString &routeTool)
{
    stop();
    program = routeTool;
    restarts = 0;
    running = true;
    launch();
}

void RouteMonitor::stop()
{
    running = false;
    settle.stop();
    restart.stop();
    partial.clear();
    if (process.state() == QProcess::NotRunning)
        return;
    process.terminate();
    if (!process.waitForFinished(StopTimeoutMs)) {
        process.kill();
        process.waitForFinished(StopTimeoutMs);
    }
}

void RouteMonitor::launch()
{
    qInfo() << "[MacVpnBackend] route monitor" << program;
    process.start(program, {QStringLiteral("-n"), QStringLiteral("monitor")}, QIODevice::ReadOnly);
    // A change made before the monitor runs (since the routes were set, or
    // while it was down) would go unseen: one look once it does.
    settle.start();
}

void RouteMonitor::readEvents()
{
    partial += process.readAllStandardOutput();
    qsizetype end = 0;
    bool event = false;
    while ((end = partial.indexOf('\n')) >= 0) {
        event = event || partial.startsWith("RTM_");
        partial.remove(0, end + 1);
    }
    if (partial.size() > MaxLineBytes)
        partial.clear();
    if (event)
        settle.start(); // waits for the burst to end
}

void RouteMonitor::exited()
{
    if (!running)
        return;
    if (restarts >= MaxRestarts) {
        qWarning() << "[MacVpnBackend] route monitor exited; not started again"
                   << "exitCode=" << process.exitCode();
        running = false;
        return;
    }
    ++restarts;
    qWarning() << "[MacVpnBackend] route monitor exited; starting it again" << restarts << "of"
               << MaxRestarts;
    restart.start();
}
