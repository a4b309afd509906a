#pragma once

#include <QObject>
#include <QThread>
#include <QTimer>

#include <memory>

class MacVpnBackend;

// Undoes what an earlier run left on the host, on a thread of its own, while
// the service already holds its socket: from its first moment no one else
// can take the path, and "status" is answered, however long the undo takes.
// The backend is not touched from the event loop until it has finished.
class StartupRecovery : public QObject
{
    Q_OBJECT

public:
    // Another instance may keep the journal a while longer; asked again this often.
    static constexpr int RetryMs = 5000;

    explicit StartupRecovery(MacVpnBackend &backend, QObject *parent = nullptr);
    ~StartupRecovery() override;

    void start();
    bool inProgress() const { return running; }

Q_SIGNALS:
    void finished();

private:
    void done(bool recovered);

    MacVpnBackend &backend;
    std::unique_ptr<QThread> thread;
    QTimer retry;
    bool running = false;
};
