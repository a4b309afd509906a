#include "backend/dns/DnsSettings.h"

#include "backend/BackendConstants.h"
#include "backend/core/CommandRunner.h"
#include "backend/core/JournalValues.h"

#include <QCoreApplication>
#include <QDebug>
#include <QJsonArray>

namespace {

const QString ListServices = QStringLiteral("-listallnetworkservices");
const QString GetServers = QStringLiteral("-getdnsservers");
const QString SetServers = QStringLiteral("-setdnsservers");

// "There aren't any DNS Servers set on Wi-Fi." is no server.
QStringList serversIn(const QString &listing)
{
    QStringList servers = listing.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    if (servers.size() == 1 && servers.front().startsWith(QLatin1String("There aren't any DNS Servers")))
        servers.clear();
    return servers;
}

} // namespace

QStringList DnsSettings::enabledServices(const QString &listing)
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

bool DnsSettings::listServices(QStringList *services) const
{
    QString listing;
    if (!CommandRunner::run(host.networksetupTool, {ListServices}, QByteArray(), &listing, nullptr,
                            CommandTimeoutMs))
        return false;
    *services = enabledServices(listing);
    return true;
}

QStringList DnsSettings::prepare(const QStringList &services)
{
    QStringList changing;
    for (const QString &service : services) {
        QString current;
        const bool read = CommandRunner::run(host.networksetupTool, {GetServers, service},
                                             QByteArray(), &current, nullptr, CommandTimeoutMs);
        qInfo().noquote() << "[MacVpnBackend] current DNS for" << service << "="
                          << current.trimmed();
        if (!read) {
            qWarning() << "[MacVpnBackend] DNS servers unreadable, service left alone" << service;
            continue;
        }
        // A service whose own servers are still to be put back keeps those as its own.
        if (const auto left = pending.constFind(service); left != pending.cend()) {
            savedDnsServers.insert(service, left->servers);
            pending.remove(service);
        } else if (!savedDnsServers.contains(service)) {
            savedDnsServers.insert(service, serversIn(current));
        }
        changing.append(service);
    }
    return changing;
}

void DnsSettings::set(const QStringList &services, const QStringList &servers)
{
    for (const QString &service : services)
        CommandRunner::run(host.networksetupTool, QStringList{SetServers, service} + servers,
                           QByteArray(), nullptr, nullptr, CommandTimeoutMs);
}

void DnsSettings::forget(const QStringList &services)
{
    for (const QString &service : services)
        savedDnsServers.remove(service);
}

void DnsSettings::restore()
{
    for (auto it = savedDnsServers.cbegin(); it != savedDnsServers.cend(); ++it) {
        const QString error = undo(it.key(), it.value(), vpnDnsServers);
        if (!error.isEmpty())
            pending.insert(it.key(), {it.value(), vpnDnsServers, error});
    }
    savedDnsServers.clear();
    vpnDnsServers.clear();
}

// The servers go back only while they are still the tunnel's: servers the
// user (or the system) chose since are theirs.
QString DnsSettings::undo(const QString &service, const QStringList &servers,
                          const QStringList &tunnel) const
{
    QString current;
    QString error;
    const bool read = CommandRunner::run(host.networksetupTool, {GetServers, service}, QByteArray(),
                                         &current, &error, CommandTimeoutMs);
    const QString said = (current + QLatin1Char('\n') + error).trimmed();
    if (said.contains(QLatin1String("is not a recognized network service"))) {
        qInfo() << "[MacVpnBackend] network service gone, nothing to put back" << service;
        return QString();
    }
    if (!read)
        return said.isEmpty() ? QStringLiteral("networksetup failed") : said;
    const QStringList now = serversIn(current);
    if (now != tunnel) {
        qInfo() << "[MacVpnBackend] DNS servers of" << service
                << "changed since; left as they are:" << now;
        return QString();
    }
    return setServers(service, servers);
}

// networksetup may report a failure on its output alone; a service that is
// gone has nothing left to put back.
QString DnsSettings::setServers(const QString &service, const QStringList &servers) const
{
    QString output;
    QString error;
    const bool done = CommandRunner::run(
        host.networksetupTool,
        QStringList{SetServers, service} +
            (servers.isEmpty() ? QStringList{QStringLiteral("Empty")} : servers),
        QByteArray(), &output, &error, CommandTimeoutMs);
    const QString said = (output + QLatin1Char('\n') + error).trimmed();
    if (said.contains(QLatin1String("is not a recognized network service"))) {
        qInfo() << "[MacVpnBackend] network service gone, nothing to put back" << service;
        return QString();
    }
    if (done && !said.contains(QLatin1String("** Error")))
        return QString();
    return said.isEmpty() ? QStringLiteral("networksetup failed") : said;
}

void DnsSettings::retryPending()
{
    for (auto it = pending.begin(); it != pending.end();) {
        it->error = undo(it.key(), it->servers, it->tunnel);
        it = it->error.isEmpty() ? pending.erase(it) : std::next(it);
    }
}

QVariantList DnsSettings::pendingSteps() const
{
    QVariantList steps;
    for (auto it = pending.cbegin(); it != pending.cend(); ++it)
        steps.append(QVariantMap{
            {QStringLiteral("what"),
             QCoreApplication::translate("MacVpnBackend", "DNS службы «%1»").arg(it.key())},
            {QStringLiteral("error"), it->error}});
    return steps;
}

void DnsSettings::write(QJsonObject *, QJsonObject *settings) const
{
    QJsonObject record;
    QJsonObject saved;
    for (auto it = savedDnsServers.cbegin(); it != savedDnsServers.cend(); ++it)
        saved.insert(it.key(), QJsonArray::fromStringList(it.value()));
    if (!saved.isEmpty()) {
        record.insert(QStringLiteral("saved"), saved);
        record.insert(QStringLiteral("tunnel"), QJsonArray::fromStringList(vpnDnsServers));
    }
    QJsonObject failed;
    for (auto it = pending.cbegin(); it != pending.cend(); ++it)
        failed.insert(it.key(),
                      QJsonObject{{QStringLiteral("servers"), QJsonArray::fromStringList(it->servers)},
                                  {QStringLiteral("tunnel"), QJsonArray::fromStringList(it->tunnel)},
                                  {QStringLiteral("error"), it->error}});
    if (!failed.isEmpty())
        record.insert(QStringLiteral("pending"), failed);
    if (!record.isEmpty())
        settings->insert(QStringLiteral("dns"), record);
}

void DnsSettings::read(const QJsonObject &, const QJsonObject &settings)
{
    const QJsonObject record = settings.value(QLatin1String("dns")).toObject();
    const QJsonObject saved = record.value(QLatin1String("saved")).toObject();
    for (auto it = saved.begin(); it != saved.end(); ++it) {
        if (const auto servers = JournalValues::servers(it.key(), it.value()))
            savedDnsServers.insert(it.key(), *servers);
    }
    if (!savedDnsServers.isEmpty()) {
        // Without the tunnel's servers, ours could not be told from the user's.
        const auto tunnel = JournalValues::servers(QStringLiteral("tunnelDns"),
                                                   record.value(QLatin1String("tunnel")));
        if (tunnel)
            vpnDnsServers = *tunnel;
        else
            savedDnsServers.clear();
    }
    const QJsonObject failed = record.value(QLatin1String("pending")).toObject();
    for (auto it = failed.begin(); it != failed.end(); ++it) {
        const QJsonObject step = it.value().toObject();
        const auto servers = JournalValues::servers(it.key(), step.value(QLatin1String("servers")));
        const auto tunnel = JournalValues::servers(it.key(), step.value(QLatin1String("tunnel")));
        if (servers && tunnel)
            pending.insert(it.key(),
                           {*servers, *tunnel, step.value(QLatin1String("error")).toString()});
    }
}
