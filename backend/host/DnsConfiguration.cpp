#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"

#include <QDebug>
#include <QRegularExpression>

namespace {

const QString ListServices = QStringLiteral("-listallnetworkservices");
const QString GetServers = QStringLiteral("-getdnsservers");
const QString SetServers = QStringLiteral("-setdnsservers");

} // namespace

bool MacVpnBackend::configureDns(const ParsedVpnConfig &config)
{
    static const QRegularExpression visible(QStringLiteral("\\S"));
    QStringList servers;
    for (const QString &server : {config.dns1, config.dns2}) {
        if (server.contains(visible))
            servers.append(server);
    }
    qInfo() << "[MacVpnBackend] configureDns" << servers;
    QString listing;
    if (!servers.isEmpty() &&
        runCommand(host.networksetupTool, {ListServices}, &listing, nullptr, CommandTimeoutMs))
        vpnDnsServers = servers;
    applyLastingChanges(vpnDnsServers.isEmpty() ? QStringList() : enabledServices(listing),
                        vpnDnsServers);
    return true;
}

// What outlasts a reboot is recorded once, durably, before any of it
// changes: each service's servers as read, and the hosts block. A service
// whose servers cannot be read could not be put back either: it keeps its own.
void MacVpnBackend::applyLastingChanges(const QStringList &services, const QStringList &servers)
{
    QStringList changing;
    for (const QString &service : services) {
        QString current;
        const bool read = runCommand(host.networksetupTool, {GetServers, service}, &current,
                                     nullptr, CommandTimeoutMs);
        qInfo().noquote() << "[MacVpnBackend] current DNS for" << service << "="
                          << current.trimmed();
        if (!read) {
            qWarning() << "[MacVpnBackend] DNS servers unreadable, service left alone" << service;
            continue;
        }
        // A service whose own servers are still to be put back keeps those as its own.
        if (const auto pending = pendingUndo.dns.constFind(service);
            pending != pendingUndo.dns.cend()) {
            savedDnsServers.insert(service, pending->servers);
            pendingUndo.dns.remove(service);
        } else if (!savedDnsServers.contains(service)) {
            QStringList saved = current.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
            if (saved.size() == 1 &&
                saved.front().startsWith(QLatin1String("There aren't any DNS Servers")))
                saved.clear();
            savedDnsServers.insert(service, saved);
        }
        changing.append(service);
    }
    if (!hostsToPin.isEmpty())
        hostsAddedLineFeed = hostsNeedLineFeed();
    hostsPinned = hostsPinned || !hostsToPin.isEmpty();
    if (!saveJournal()) {
        qWarning() << "[MacVpnBackend] DNS servers and hosts left alone: journal not written";
        for (const QString &service : std::as_const(changing))
            savedDnsServers.remove(service);
        hostsPinned = false;
        return;
    }
    pinControlPlaneHosts(hostsToPin);
    hostsToPin.clear();
    for (const QString &service : std::as_const(changing))
        runCommand(host.networksetupTool, QStringList{SetServers, service} + servers, nullptr,
                   nullptr, CommandTimeoutMs);
}

// Network services that appear while connected (a cable plugged in) get the
// tunnel's DNS servers too, theirs saved like the others'.
void MacVpnBackend::configureDnsOnNewServices()
{
    QString listing;
    if (!runCommand(host.networksetupTool, {ListServices}, &listing, nullptr, CommandTimeoutMs))
        return;
    QStringList added;
    for (const QString &service : enabledServices(listing)) {
        if (!savedDnsServers.contains(service)) {
            qInfo() << "[MacVpnBackend] new network service" << service;
            added.append(service);
        }
    }
    if (!added.isEmpty())
        applyLastingChanges(added, vpnDnsServers);
}

QStringList MacVpnBackend::enabledServices(const QString &listing) const
{
    QStringList services;
    const QStringList lines = listing.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString &line : lines) {
        const QString service = line.trimmed();
        // A leading asterisk marks a disabled service; the first line explains that.
        if (!service.isEmpty() && !service.startsWith(QLatin1Char('*')) &&
            !service.startsWith(QLatin1String("An asterisk")))
            services.append(service);
    }
    return services;
}

void MacVpnBackend::restoreDns()
{
    for (auto it = savedDnsServers.cbegin(); it != savedDnsServers.cend(); ++it) {
        const QString error = undoDns(it.key(), it.value(), vpnDnsServers);
        if (!error.isEmpty())
            pendingUndo.dns.insert(it.key(), {it.value(), vpnDnsServers, error});
    }
    savedDnsServers.clear();
}

// networksetup may report a failure on its output alone; a service that is
// gone has nothing left to put back.
QString MacVpnBackend::setDnsServers(const QString &service, const QStringList &servers) const
{
    QString output;
    QString error;
    const bool done =
        runCommand(host.networksetupTool,
                   QStringList{SetServers, service} +
                       (servers.isEmpty() ? QStringList{QStringLiteral("Empty")} : servers),
                   &output, &error, CommandTimeoutMs);
    const QString said = (output + QLatin1Char('\n') + error).trimmed();
    if (said.contains(QLatin1String("is not a recognized network service"))) {
        qInfo() << "[MacVpnBackend] network service gone, nothing to put back" << service;
        return QString();
    }
    if (done && !said.contains(QLatin1String("** Error")))
        return QString();
    return said.isEmpty() ? QStringLiteral("networksetup failed") : said;
}

void MacVpnBackend::flushDnsCache() const
{
    qInfo() << "[MacVpnBackend] flushDnsCache";
    runCommand(host.dscacheutilTool, {QStringLiteral("-flushcache")}, nullptr, nullptr,
               CommandTimeoutMs);
    runCommand(host.killallTool, {QStringLiteral("-HUP"), QStringLiteral("mDNSResponder")}, nullptr,
               nullptr, CommandTimeoutMs);
}
