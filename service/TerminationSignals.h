#pragma once

#include <QObject>
#include <QSocketNotifier>

#include <memory>

// Turns SIGTERM, SIGINT and SIGHUP into a Qt signal on the event loop, so the
// service can end in order and undo its changes to the host instead of dying
// with routes, DNS servers and the hosts block still in place.
class TerminationSignals : public QObject
{
    Q_OBJECT

public:
    explicit TerminationSignals(QObject *parent = nullptr);
    ~TerminationSignals() override;

Q_SIGNALS:
    void received(int signalNumber);

private:
    void drain();

    std::unique_ptr<QSocketNotifier> notifier;
};
