#pragma once

#include <QObject>
#include <QSocketNotifier>

#include <memory>

// Turns the signals the service answers into Qt signals on the event loop.
// SIGTERM, SIGINT and SIGHUP end it in order, undoing its changes to the
// host instead of dying with routes, DNS servers and the hosts block still in
// place; SIGUSR1, sent by newsyslog after it rotated the log, reopens the log.
class ServiceSignals : public QObject
{
    Q_OBJECT

public:
    explicit ServiceSignals(QObject *parent = nullptr);
    ~ServiceSignals() override;

Q_SIGNALS:
    void stopRequested();
    void logRotated();

private:
    void drain();

    std::unique_ptr<QSocketNotifier> notifier;
};
