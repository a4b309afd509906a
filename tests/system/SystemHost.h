#pragma once

#include "SimulatedHost.h"

#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <sys/types.h>

// Skips the calling test unless it may use the sandboxed host.
#define REQUIRE_SANDBOX()                                                                          \
    do {                                                                                           \
        if (const QString reason = SystemHost::unavailableReason(); !reason.isEmpty())             \
            QSKIP(qPrintable(reason));                                                             \
    } while (false)

// The macOS host as the unmodified daemon sees it inside scripts/sandbox: the
// stand-in tools at /sbin/route and the other real paths, the daemon and the
// tunnel stand-in in /opt/tarvex, the simulated state in StateDir. Outside
// the sandbox, and without root, the tests skip.
class SystemHost : public SimulatedHost
{
public:
    static constexpr const char *InstallDir = "/opt/tarvex";
    static constexpr const char *StateDir = "/var/lib/tarvex-sim";

    // Empty when the host may be used; otherwise the reason to skip.
    static QString unavailableReason();
    static QString binary(const QString &name);

    SystemHost();
    ~SystemHost();

    void installTunnel(bool executable = true);
    // Makes the given tool call, counted from the start of the test, kill the
    // daemon (SIGKILL) before or after it does its work.
    void killDaemonAt(qsizetype call, bool before = false);
    // The next start gives the daemon this many descriptors; with a fixed
    // ceiling it cannot raise them, root or not.
    void limitDescriptors(int soft, bool fixedCeiling = false);

    // Starts the daemon and waits until its socket answers.
    bool startDaemon(const QStringList &environment = QStringList());
    bool startWithTunnel(const QStringList &environment = QStringList())
    {
        installTunnel();
        return startDaemon(environment);
    }
    // Sends the signal and waits; returns the exit code, -1 after a crash.
    int stopDaemon(int signalNumber = 15);
    // Waits for the daemon to end; one still running then is killed. The
    // monitor's look after a connect makes the count of commands vary, so a
    // kill point may come after the last one.
    void waitForKill();
    QProcess &daemon() { return process; }
    QString daemonLog() const;

    QJsonObject request(const QJsonObject &message, int timeoutMs = 60000) const;
    // Writes the pieces, with pauses between them, and returns what came back
    // up to the first line feed; empty when the daemon ends the exchange.
    QByteArray rawRequest(const QList<QByteArray> &pieces, int timeoutMs = 60000) const;
    // The same exchange from a process running as another user.
    QJsonObject requestAs(uid_t uid, const QJsonObject &message) const;

    QByteArray hostsFile() const;
    void writeHostsFile(const QByteArray &text);

private:
    QProcess process;
    QString logPath;
    int descriptors = 0;
    bool fixedCeiling = false;
};
