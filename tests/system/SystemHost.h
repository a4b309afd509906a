#pragma once

#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <QStringList>

// Skips the calling test unless it may use the sandboxed host.
#define REQUIRE_SANDBOX()                                                                          \
    do {                                                                                           \
        const QString reason = SystemHost::unavailableReason();                                    \
        if (!reason.isEmpty())                                                                     \
            QSKIP(qPrintable(reason));                                                             \
    } while (false)

// The macOS host as the unmodified daemon sees it inside the sandbox: the
// stand-in tools at /sbin/route and the other real paths, the daemon and the
// tunnel stand-in in /opt/tarvex, the simulated state in StateDir.
//
// Every operation first checks that this process really is inside the
// sandbox; outside it, and without root, the tests skip.
class SystemHost
{
public:
    static constexpr const char *InstallDir = "/opt/tarvex";
    static constexpr const char *StateDir = "/var/lib/tarvex-sim";

    // Empty when the host may be used; otherwise the reason to skip.
    static QString unavailableReason();

    SystemHost();
    ~SystemHost();

    void installTunnel(bool executable = true);
    void removeTunnel();
    void setToolFaults(const QStringList &rules);

    // Starts the daemon and waits until its socket answers.
    bool startDaemon(const QStringList &environment = QStringList());
    // The usual start: the tunnel stand-in beside the daemon, then the daemon.
    bool startWithTunnel(const QStringList &environment = QStringList())
    {
        installTunnel();
        return startDaemon(environment);
    }
    // The next start gives the daemon this many descriptors; with a fixed
    // ceiling it also cannot raise them, root or not.
    void limitDescriptors(int soft, bool fixedCeiling = false);
    // Waits for the daemon to end; one still running after that is killed
    // (SIGKILL). The monitor's own look after a connect makes the count of
    // commands vary, so a kill point may come after the last one.
    void waitForKill();
    // Sends SIGTERM and waits; returns the exit code.
    int stopDaemon(int signalNumber = 15);
    QProcess &daemon() { return process; }
    QString daemonLog() const;

    QJsonObject request(const QJsonObject &message, int timeoutMs = 60000) const;
    // The same exchange from a process running as another user.
    QJsonObject requestAs(uid_t uid, const QJsonObject &message) const;
    QByteArray rawRequest(const QByteArray &line, int timeoutMs = 60000) const;

    QByteArray stateBytes() const;
    QJsonObject state() const;
    void writeState(const QJsonObject &state);
    QList<QStringList> calls(const QString &tool = QString()) const;
    // Makes the given tool call, counted from the start of the test, kill the
    // daemon (SIGKILL) before or after it does its work.
    void killDaemonAt(qsizetype call, bool before = false);
    QByteArray hostsFile() const;
    void writeHostsFile(const QByteArray &text);
    bool tunnelRunning() const;

    static QString binary(const QString &name);

private:
    QProcess process;
    int descriptors = 0;
    bool fixedCeiling = false;
    QString logPath;
};
