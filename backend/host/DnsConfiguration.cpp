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
    if (servers.isEmpty())
        return true;

    QString listing;
    if (!runCommand(host.networksetupTool, {ListServices}, &listing, nullptr, CommandTimeoutMs))
        return true;
    vpnDnsServers = servers;
    const QStringList services = enabledServices(listing);
    for (const QString &service : services)
        applyVpnDns(service, servers);
    return true;
}

// Network services that appear while connected (a cable plugged in) get the
// tunnel's DNS servers too, theirs saved like the others'.
void MacVpnBackend::configureDnsOnNewServices()
{
    QString listing;
    if (!runCommand(host.networksetupTool, {ListServices}, &listing, nullptr, CommandTimeoutMs))
        return;
    const QStringList services = enabledServices(listing);
    for (const QString &service : services) {
        if (!savedDnsServers.contains(service)) {
            qInfo() << "[MacVpnBackend] new network service" << service;
            applyVpnDns(service, vpnDnsServers);
        }
    }
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

void MacVpnBackend::applyVpnDns(const QString &service, const QStringList &servers)
{
    QString current;
    const bool read = runCommand(host.networksetupTool, {GetServers, service}, &current, nullptr,
                                 CommandTimeoutMs);
    qInfo().noquote() << "[MacVpnBackend] current DNS for" << service << "=" << current.trimmed();
    // Servers we could not read could not be put back either: such a
    // service keeps its own rather than losing them on disconnect.
    if (!read) {
        qWarning() << "[MacVpnBackend] DNS servers unreadable, service left alone" << service;
        return;
    }

    QStringList saved = current.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    if (saved.size() == 1 &&
        saved.front().startsWith(QLatin1String("There aren't any DNS Servers")))
        saved.clear();
    // Recorded before the change, so that a crash cannot lose them.
    savedDnsServers.insert(service, saved);
    if (!saveJournal()) {
        qWarning() << "[MacVpnBackend] DNS servers left alone: journal not written" << service;
        savedDnsServers.remove(service);
        return;
    }
    runCommand(host.networksetupTool, QStringList{SetServers, service} + servers, nullptr, nullptr,
               CommandTimeoutMs);
}

void MacVpnBackend::restoreDns()
{
    for (auto it = savedDnsServers.cbegin(); it != savedDnsServers.cend(); ++it) {
        const QStringList servers =
            it.value().isEmpty() ? QStringList{QStringLiteral("Empty")} : it.value();
        runCommand(host.networksetupTool, QStringList{SetServers, it.key()} + servers, nullptr,
                   nullptr, CommandTimeoutMs);
    }
    savedDnsServers.clear();
}

void MacVpnBackend::flushDnsCache() const
{
    qInfo() << "[MacVpnBackend] flushDnsCache";
    runCommand(host.dscacheutilTool, {QStringLiteral("-flushcache")}, nullptr, nullptr,
               CommandTimeoutMs);
    runCommand(host.killallTool, {QStringLiteral("-HUP"), QStringLiteral("mDNSResponder")}, nullptr,
               nullptr, CommandTimeoutMs);
}
