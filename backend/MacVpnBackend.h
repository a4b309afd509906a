#pragma once

#include "backend/MacHostEnvironment.h"
#include "backend/PlatformVpnBackend.h"
#include "backend/core/HostJournal.h"
#include "backend/core/PendingUndo.h"
#include "backend/host/EndpointMemory.h"
#include "backend/host/KillSwitch.h"
#include "backend/host/RouteEntry.h"
#include "backend/host/RouteMonitor.h"
#include "backend/host/RoutingTable.h"

#include <QElapsedTimer>
#include <QHash>
#include <QHostAddress>
#include <QHostInfo>
#include <QList>
#include <QMap>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QVariantList>
#include <QVariantMap>

// The macOS backend. One instance lives inside the service for the whole
// process; every host change it makes is undone by cleanup(), which also runs
// when the object is destroyed. Each change is written to a journal on disk
// before it is made, so that a start after a crash can undo it as well.
//
// Its members are spread over backend/core (state, command runner, sequence),
// backend/tunnel (tunnel program, configuration socket, set transaction) and
// backend/host (interface, routes, DNS, bypass, hosts file).
class MacVpnBackend : public PlatformVpnBackend
{
    Q_OBJECT

public:
    struct SplitTunnelSettings
    {
        bool enabled = false;
        int mode = 0;
        QVariantList entries;
    };

    // Opt-in, from the peer map's "killSwitch": nothing leaves outside the
    // tunnel, from before the tunnel program starts until the user disconnects.
    struct KillSwitchSettings
    {
        bool enabled = false;
        bool allowLan = false;
    };

    // Owned by the service and kept across restarts: no traffic outside the
    // tunnel whenever it is not up, from boot until the user turns it off.
    struct AlwaysOnSettings
    {
        bool enabled = false;
        bool allowLan = false;
    };
    // At most this long without the block, for a captive portal's login page.
    static constexpr int MaxPauseSeconds = 120;

    // Whether a clean-up ends what the user's connection asked of the block
    // (a disconnect: the user has decided) or keeps it (the tunnel failed, the
    // service stops, a connect failed or replaces the tunnel).
    enum class Block { Lift, Keep };

    using RouteEntry = ::RouteEntry;

    explicit MacVpnBackend(QObject *parent = nullptr);
    explicit MacVpnBackend(MacHostEnvironment environment, QObject *parent = nullptr);
    ~MacVpnBackend() override;

    // Status and errors.
    Status status() const override;
    QString lastError() const override;
    void setStatus(Status status);
    void setError(const QString &message);

    // Connect and disconnect sequence.
    void connectVpn(const ParsedVpnConfig &config) override;
    void connectVpn(const ParsedVpnConfig &config, const QVariantMap &peer) override;
    void disconnectVpn() override;
    // Why a connect with these values is refused before anything is
    // touched; empty when it is not.
    QString refusal(const ParsedVpnConfig &config, const QVariantMap &peer) const;
    // While connected: the interface, the endpoint, how long the tunnel has
    // been up, and, asked of the tunnel program, the last handshake (seconds
    // since the epoch, 0 for none) and the bytes received and sent; at any
    // time, the undo steps still to be done. Nothing secret. False when not
    // connected or the tunnel program did not answer.
    bool refreshStatus(QVariantMap *details) override;
    void cleanup(Block block = Block::Lift);
    // True from the start of a connect until it has returned, also when a
    // disconnect has cancelled it and it is still unwinding.
    bool connectInProgress() const;

    // Takes the host journal over from any earlier run and undoes what it
    // records, newest first. False when another instance keeps the journal.
    // Touches nothing the event loop shares: it may run on a thread of its
    // own, and reportRecovery(), back on the event loop, then tells of any
    // step that failed.
    bool recoverHostChanges();
    void reportRecovery();
    // Before the service listens: with always-on, or a block an earlier run
    // left, the block is put in force at once, unless another instance still
    // holds the journal (its block stays until this one takes over).
    void engageBlockAtStart();

    // Always-on, for those who may command; false with the error when refused.
    bool setAlwaysOn(const AlwaysOnSettings &settings);
    // Empty when paused, else why not.
    QString pauseAlwaysOn(int seconds);
    // For anyone: the setting and whether the block is verified in force;
    // empty while it is off.
    QVariantMap alwaysOnState() const;

    bool runCommand(const QString &program, const QStringList &arguments, QString *standardOutput,
                    QString *standardError, int timeoutMs) const;
    bool runCommand(const QString &program, const QStringList &arguments, const QByteArray &input,
                    QString *standardOutput, QString *standardError, int timeoutMs) const;

    // Tunnel program and its configuration socket.
    QString findTunnelBinary() const;
    bool startTunnelProcess();
    QString waitForTunnelName(const QString &nameFilePath);
    void stopTunnelProcess();
    QString uapiCommand(const QString &payload);
    int uapiErrno(const QString &reply) const;
    QString uapiSetConfig(const ParsedVpnConfig &config) const;

    // Values derived from the client configuration.
    QString endpointHost(const ParsedVpnConfig &config) const;
    int endpointPort(const ParsedVpnConfig &config) const;
    // Host and port as the configuration protocol writes them.
    QString endpointOf(const ParsedVpnConfig &config) const;
    QString clientIpv4(const ParsedVpnConfig &config) const;
    QStringList allowedIps(const ParsedVpnConfig &config) const;
    QString hexKey(const QString &key) const;
    SplitTunnelSettings splitTunnelFromPeer(const QVariantMap &peer) const;
    KillSwitchSettings killSwitchFromPeer(const QVariantMap &peer) const;

    // Host network configuration.
    bool configureInterface(const ParsedVpnConfig &config);
    bool configureRoutes(const ParsedVpnConfig &config);
    void removeRoutes();
    QStringList splitTunnelRoutes() const;
    QStringList resolvedSplitTunnelRoutes(const QVariantMap &entry) const;
    bool configureDns(const ParsedVpnConfig &config);
    void restoreDns();
    // The services "networksetup -listallnetworkservices" lists as enabled.
    QStringList enabledServices(const QString &listing) const;
    void flushDnsCache() const;
    void installControlPlaneBypass(const QString &gateway);
    void removeControlPlaneBypass();
    QString controlPlaneHost() const;
    void pinControlPlaneHosts(const QStringList &addresses);
    void unpinControlPlaneHosts();

    QString defaultGateway() const;
    // The gateway of either family's default route, and the interface it uses.
    QString defaultGatewayOf(bool ipv6, QString *interfaceName = nullptr) const;
    bool isIpv4Route(const QString &route) const;
    bool isIpv6Route(const QString &route) const;
    QString routeFamily(const QString &route) const;
    QString routeType(const QString &route) const;

private:
    // A route to add and the message when that fails (none when a failure
    // does not stop the connect).
    struct PlannedRoute
    {
        RouteEntry entry;
        const char *failureMessage;
    };
    bool addRoutes(const QList<PlannedRoute> &planned);
    // The route command that adds it: into the tunnel by interface, around
    // it by gateway.
    QStringList routeAddArguments(const RouteEntry &route) const;
    // Runs route and judges it by what it printed (see RouteReply): false,
    // with the error as route printed it, when the kernel refused.
    bool runRoute(const QStringList &arguments, QString *failure, QString *answer = nullptr) const;
    // Read without a word on the routing socket, unlike "route get".
    RoutingTable readRoutingTable(bool ipv6) const;

    // The journal of host changes (backend/core/JournalState.cpp).
    HostJournal::Records journalState() const;
    void adoptJournalState(const HostJournal::Records &records);
    void adoptSession(const QJsonObject &session);
    // Locks the journal and takes in what an earlier run left, once.
    bool takeOverJournal(int waitMs);
    // Writes the bookkeeping to the journal; recordHostChange also fails the
    // connect with a message when it cannot, so that no change goes unrecorded.
    bool saveJournal(QString *error = nullptr);
    bool recordHostChange();
    void stopRecordedTunnel();

    // Every undo, at a disconnect, on retry and at start-up, goes through
    // these (backend/core/HostUndo.cpp): a step is undone only while what it
    // undoes is still the service's; what the user or another program has
    // made its own since is dropped from the record with a log line.
    struct RouteTables
    {
        RoutingTable inet;
        RoutingTable inet6;
        bool read = false;
    };
    RouteTables readRouteTables() const;
    // Ours while it goes where ours went: by the same gateway, or through an
    // interface our recorded tunnel program still holds.
    bool routeIsOurs(const RouteEntry &route, const RouteTables &tables) const;
    bool tunnelHolds(const QString &interfaceName) const;
    // Deletes each route still ours, newest first; one that will not go is kept.
    void undoRoutes(const QList<RouteEntry> &routes);
    // Empty when done or no longer ours, else the error.
    QString undoRoute(const RouteEntry &route, const RouteTables &tables) const;
    QString undoDns(const QString &service, const QStringList &servers,
                    const QStringList &tunnel) const;
    void retryPendingUndo();
    void retryPendingWhileIdle();
    // The primitives of the undo: empty when done, else the error.
    QString setDnsServers(const QString &service, const QStringList &servers) const;
    QString removeHostsBlock();
    bool hostsNeedLineFeed() const;

    // Names the connect needs (its endpoint, split-tunnel hosts, the
    // control-plane host), looked up together under one deadline before the
    // tunnel starts.
    void resolveNames(const QString &endpoint);
    QHostInfo lookedUp(const QString &name) const;
    // The one address the endpoint goes by; empty when its name has none.
    QString endpointAddress(const QString &endpoint) const;
    // What a resolver of the network the Mac is on may say a name that goes
    // around the tunnel stands for (see BypassFilter).
    QStringList addressesAroundTunnel(const QString &name) const;

    QString uapiSocketPath() const;
    // One exchange on the configuration socket without a log line: for the
    // counters any caller may ask for.
    QString uapiQuery(const QString &payload, int timeoutMs) const;

    // The block (backend/host/TrafficBlock.cpp): wanted while the user's
    // connection holds its kill switch, or always-on is on and not paused;
    // what it lets through follows the tunnel. False, with the error set,
    // when it cannot be put in force.
    bool blockWanted() const;
    FirewallRules::Allowed blockRules() const;
    bool updateBlock();
    QString killSwitchBlockingMessage() const;
    // The route monitor runs while connected or blocking; the block is checked then.
    void watchNetwork();
    void endPause();
    // An endpoint name's last address, used instead of a look-up the block forbids.
    QString recordedEndpoint(const QString &name) const;

    // Following the network while connected (backend/host/NetworkChange.cpp).
    void followNetworkChange();
    // The routes that leave by a gateway rather than the tunnel: the server
    // route, the bypass hosts and the exclusions of that family.
    QList<RouteEntry> routesAroundTunnel(bool ipv6) const;
    void moveGatewayRoutes(bool ipv6, const RoutingTable::Route &wayOut);
    void restoreMissingRoutes(bool ipv6, const RoutingTable &table);
    void configureDnsOnNewServices();
    // Reads each service's servers and records them, with the hosts block,
    // in one durable save; then pins the hosts and sets the servers.
    void applyLastingChanges(const QStringList &services, const QStringList &servers);

    void watchTunnelProcess();
    void drainTunnelOutput();
    void handleTunnelExit();

    int currentStatus = Disconnected;
    QString lastErrorMessage;
    QString runtimeDir;
    QString tunnelInterface;
    QString serverHost;
    QList<QString> controlPlaneBypassHosts;
    QList<RouteEntry> installedRoutes;
    SplitTunnelSettings splitTunnel;
    QMap<QString, QList<QString>> savedDnsServers;
    QProcess tunnelProcess;
    QString tunnelOutput;

    const MacHostEnvironment host;

    // Bookkeeping the journal needs beyond the members above: the gateway the
    // bypass and exclusion routes point at, the one the server route points at
    // (empty unless that route is ours), whether the hosts block is ours (and
    // whether pinning added a line feed before it), and who the tunnel
    // program is (recorded as a program before it starts, then by its pid).
    QString physicalGateway;
    QString physicalInterface;
    QString serverRouteGateway;
    QString serverRouteInterface;
    bool hostsPinned = false;
    bool hostsAddedLineFeed = false;
    QStringList hostsToPin;
    // The tunnel's own addresses and DNS servers: never routed around it.
    QList<QHostAddress> tunnelAddresses;
    QString tunnelProgram;
    qint64 tunnelPid = 0;
    QString tunnelIdentity;
    HostJournal journal;
    bool journalTaken = false;
    // A later release's records, kept aside (or not) by this one; while one
    // could not be moved, nothing is written over it.
    QStringList journalLeft;
    bool journalBlocked = false;
    QString recoveryError; // the block's, found off the event loop, told on it
    PendingUndo pendingUndo;
    KillSwitchSettings killSwitch;
    // The user's connection asked for the block and has not ended: kept after
    // the tunnel failed, a connect failed or the service stopped.
    bool killSwitchHeld = false;
    KillSwitch firewall;
    AlwaysOnSettings alwaysOn;
    QTimer pause;
    EndpointMemory endpointAddresses;
    QString firewallEndpoint;
    int firewallPort = 0;
    bool stoppingTunnel = false;
    qint64 tunnelOutputLogged = 0;
    QHash<QString, QHostInfo> resolvedNames;
    RouteMonitor routeMonitor;
    QStringList vpnDnsServers; // set on the network services while connected
    QStringList tunnelDnsServers; // the connection's own, which the block lets through
    QString tunnelEndpoint;
    // The interface the tunnel program named, whether or not its
    // configuration socket then answered.
    QString namedInterface;
    QElapsedTimer tunnelClock; // since the tunnel program started

    // A connect re-enters the event loop while it waits for the interface
    // name; these let a disconnect arriving then cancel it cleanly.
    bool connectRunning = false;
    bool connectCancelled = false;
};
