#pragma once

#include "backend/PlatformVpnBackend.h"
#include "backend/core/BackendJournal.h"
#include "backend/core/PendingUndo.h"
#include "backend/dns/DnsSettings.h"
#include "backend/firewall/EndpointMemory.h"
#include "backend/firewall/Firewall.h"
#include "backend/hosts/HostsBlock.h"
#include "backend/plan/NameResolver.h"
#include "backend/routes/HostRoutes.h"
#include "backend/tunnel/TunnelProgram.h"

// The macOS backend, one for the whole process. A connect computes what it
// wants of the host (ConnectionPlan) and hands each room its share, in the
// order of core/ConnectSequence.cpp (its steps by name: core/Steps.cpp);
// a clean-up, also at destruction, applies the empty plan.
class MacVpnBackend : public PlatformVpnBackend
{
    Q_OBJECT

public:
    using SplitTunnelSettings = PeerValues::SplitTunnel;
    using AlwaysOnSettings = Firewall::AlwaysOn;
    static constexpr int MaxPauseSeconds = Firewall::MaxPauseSeconds;
    enum class Block { Lift, Keep }; // what a clean-up does to the user's kill switch

    explicit MacVpnBackend(QObject *parent = nullptr);
    explicit MacVpnBackend(MacHostEnvironment environment, QObject *parent = nullptr);
    ~MacVpnBackend() override;
    Status status() const override;
    QString lastError() const override;
    void setStatus(Status status);
    void setError(const QString &message);
    // Nothing secret: the tunnel's counters, the block, what is left to undo.
    bool refreshStatus(QVariantMap *details) override;

    void connectVpn(const ParsedVpnConfig &config) override;
    void connectVpn(const ParsedVpnConfig &config, const QVariantMap &peer) override;
    void disconnectVpn() override;
    void cleanup(Block block = Block::Lift);
    bool connectInProgress() const { return connectRunning; }
    QString refusal(const ParsedVpnConfig &config, const QVariantMap &peer) const;
    // What an earlier run left; the undo may run on a thread of its own.
    void engageBlockAtStart();
    bool recoverHostChanges();
    void reportRecovery();
    bool setAlwaysOn(const AlwaysOnSettings &settings);
    QString pauseAlwaysOn(int seconds);
    QVariantMap alwaysOnState() const { return firewall.alwaysOnState(); }

    bool runCommand(const QString &program, const QStringList &arguments, QString *standardOutput,
                    QString *standardError, int timeoutMs) const;
    QString findTunnelBinary() const;
    bool startTunnelProcess();
    void stopTunnelProcess();
    QString uapiCommand(const QString &payload);
    int uapiErrno(const QString &reply) const;
    QString uapiSetConfig(const ParsedVpnConfig &config) const;
    QString endpointHost(const ParsedVpnConfig &config) const;
    int endpointPort(const ParsedVpnConfig &config) const;
    QString clientIpv4(const ParsedVpnConfig &config) const;
    QStringList allowedIps(const ParsedVpnConfig &config) const;
    QString hexKey(const QString &key) const;
    SplitTunnelSettings splitTunnelFromPeer(const QVariantMap &peer) const;
    bool configureInterface(const ParsedVpnConfig &config);
    bool configureRoutes(const ParsedVpnConfig &config);
    void removeRoutes();
    QStringList splitTunnelRoutes() const;
    QStringList resolvedSplitTunnelRoutes(const QVariantMap &entry) const;
    bool configureDns(const ParsedVpnConfig &config);
    void restoreDns();
    QStringList enabledServices(const QString &listing) const;
    void flushDnsCache() const;
    void installControlPlaneBypass();
    void removeControlPlaneBypass();
    QString controlPlaneHost() const;
    void pinControlPlaneHosts(const QStringList &addresses);
    void unpinControlPlaneHosts();
    QString defaultGateway();
    bool isIpv4Route(const QString &route) const;
    bool isIpv6Route(const QString &route) const;
    QString routeFamily(const QString &route) const;
    QString routeType(const QString &route) const;

private:
    bool saveJournal(QString *error = nullptr) { return journal.save(error); }
    bool recordHostChange();
    void resolveNames(const QString &endpoint);
    QString endpointAddress(const QString &endpoint) const;
    bool updateBlock();
    void watchNetwork();
    void followNetworkChange(const RouteMonitor::Changes &changes);
    void applyLastingChanges(const QStringList &services, const QStringList &servers);
    void configureDnsOnNewServices();
    void retryPendingUndo();
    void retryPendingWhileIdle();
    void handleTunnelExit();

    const MacHostEnvironment host;
    int currentStatus = Disconnected;
    QString lastErrorMessage;
    SplitTunnelSettings splitTunnel;
    ConnectionPlan plan;
    NameResolver::Answers names{host.lookupHost};
    QString recoveryError;
    TunnelProgram tunnel;
    HostRoutes routes;
    DnsSettings dns;
    HostsBlock hostsBlock;
    Firewall firewall;
    EndpointMemory endpointAddresses;
    BackendJournal journal{host.journalDir,
                           {&tunnel, &routes, &dns, &hostsBlock, &firewall, &endpointAddresses}};
    PendingUndo pendingUndo{{&dns, &hostsBlock, &firewall, &routes}};
    // A connect waits in the event loop, where a disconnect may cancel it.
    bool connectRunning = false;
    bool connectCancelled = false;
};
