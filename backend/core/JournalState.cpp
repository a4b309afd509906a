// The backend's bookkeeping of host changes, as the journal keeps it on disk.
#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"
#include "backend/core/BootSession.h"
#include "backend/core/JournalFormat.h"
#include "backend/core/JournalValues.h"
#include "config/NetworkText.h"

#include <QDebug>
#include <QFileInfo>
#include <QJsonArray>
#include <QRegularExpression>

#include <optional>

namespace {


using JournalValues::ignored;

} // namespace

HostJournal::Records MacVpnBackend::journalState() const
{
    QJsonObject session;
    if (!tunnelProgram.isEmpty())
        session.insert(QStringLiteral("tunnel"),
                       QJsonObject{{QStringLiteral("program"), tunnelProgram},
                                   {QStringLiteral("pid"), tunnelPid},
                                   {QStringLiteral("identity"), tunnelIdentity},
                                   {QStringLiteral("interface"), tunnelInterface}});
    if (!controlPlaneBypassHosts.isEmpty()) {
        session.insert(QStringLiteral("gateway"), physicalGateway);
        session.insert(QStringLiteral("bypassRoutes"),
                       QJsonArray::fromStringList(controlPlaneBypassHosts));
    }
    if (!serverRouteGateway.isEmpty())
        session.insert(QStringLiteral("serverRoute"),
                       QJsonObject{{QStringLiteral("host"), serverHost},
                                   {QStringLiteral("via"), serverRouteGateway}});
    QJsonArray routes;
    for (const RouteEntry &route : installedRoutes)
        routes.append(route.toJson());
    if (!routes.isEmpty())
        session.insert(QStringLiteral("routes"), routes);
    if (firewall.holdsPf()) {
        QJsonObject block = firewall.record();
        block.insert(QStringLiteral("held"), killSwitchHeld);
        session.insert(QStringLiteral("killSwitch"), block);
    }
    QJsonObject settings;
    pendingUndo.write(&session, &settings);
    if (!session.isEmpty()) {
        JournalFormat::stamp(&session);
        session.insert(QStringLiteral("boot"), BootSession::current());
    }

    QJsonObject dns;
    for (auto it = savedDnsServers.cbegin(); it != savedDnsServers.cend(); ++it)
        dns.insert(it.key(), QJsonArray::fromStringList(it.value()));
    if (!dns.isEmpty()) {
        settings.insert(QStringLiteral("dns"), dns);
        settings.insert(QStringLiteral("tunnelDns"), QJsonArray::fromStringList(vpnDnsServers));
    }
    if (hostsPinned || !pendingUndo.hostsBlock.isEmpty())
        settings.insert(QStringLiteral("hostsBlock"),
                        QJsonObject{{QStringLiteral("addedLineFeed"), hostsAddedLineFeed},
                                    {QStringLiteral("error"), pendingUndo.hostsBlock}});
    if (alwaysOn.enabled)
        settings.insert(QStringLiteral("alwaysOn"),
                        QJsonObject{{QStringLiteral("enabled"), true},
                                    {QStringLiteral("allowLan"), alwaysOn.allowLan}});
    endpointAddresses.write(&settings);
    if (!settings.isEmpty())
        JournalFormat::stamp(&settings);
    return {session, settings};
}

// Takes in only what is well formed: a damaged or forged journal must never
// make the service run a command it would not have run itself. What the
// session recorded vanished with an earlier boot, and is only dropped.
void MacVpnBackend::adoptJournalState(const HostJournal::Records &records)
{
    // Each record in this release's terms; a later release's is kept aside
    // as it is, before anything of ours is written over it.
    const auto read = [this](const QJsonObject &record, HostJournal::Record which) {
        const JournalFormat::Reading reading = JournalFormat::read(record);
        if (!reading.keepAside)
            return reading.record;
        const QString aside = journal.keepAside(which, reading.version);
        journalLeft.append(
            aside.isEmpty()
                ? tr("запись версии %1 не удалось отложить").arg(reading.version)
                : tr("запись версии %1 оставлена как %2%3")
                      .arg(reading.version)
                      .arg(aside, reading.record.isEmpty() ? tr(", не отменена") : QString()));
        qWarning().noquote() << "[MacVpnBackend] journal:" << journalLeft.constLast();
        journalBlocked = journalBlocked || aside.isEmpty();
        return reading.record;
    };
    const QJsonObject session = read(records.session, HostJournal::Record::Session);
    const QJsonObject settings = read(records.settings, HostJournal::Record::Settings);
    const QString boot = BootSession::current();
    if (!session.isEmpty() && (boot.isEmpty() || session.value(QLatin1String("boot")) != boot)) {
        qInfo() << "[MacVpnBackend] routes, tunnel program and pf rules of an earlier boot are "
                   "gone with it; their record is dropped";
    } else if (!session.isEmpty()) {
        adoptSession(session);
    }

    const QJsonObject dns = settings.value(QLatin1String("dns")).toObject();
    for (auto it = dns.begin(); it != dns.end(); ++it) {
        if (const auto servers = JournalValues::servers(it.key(), it.value()))
            savedDnsServers.insert(it.key(), *servers);
    }
    if (!savedDnsServers.isEmpty()) {
        // Without the tunnel's servers, ours could not be told from the user's.
        const auto tunnel = JournalValues::servers(QStringLiteral("tunnelDns"),
                                                   settings.value(QLatin1String("tunnelDns")));
        if (tunnel)
            vpnDnsServers = *tunnel;
        else
            savedDnsServers.clear();
    }
    pendingUndo.read(session.value(QLatin1String("boot")) == boot ? session : QJsonObject(),
                     settings);
    const QJsonObject block = settings.value(QLatin1String("hostsBlock")).toObject();
    hostsPinned = settings.contains(QLatin1String("hostsBlock"));
    hostsAddedLineFeed = block.value(QLatin1String("addedLineFeed")).toBool();
    pendingUndo.hostsBlock = block.value(QLatin1String("error")).toString();
    const QJsonObject always = settings.value(QLatin1String("alwaysOn")).toObject();
    alwaysOn = {always.value(QLatin1String("enabled")).toBool(),
                always.value(QLatin1String("allowLan")).toBool()};
    endpointAddresses.read(settings);
}

void MacVpnBackend::adoptSession(const QJsonObject &session)
{
    const QJsonObject tunnel = session.value(QLatin1String("tunnel")).toObject();
    const QString program = tunnel.value(QLatin1String("program")).toString();
    const QString interfaceName = tunnel.value(QLatin1String("interface")).toString();
    if (QFileInfo(program).isAbsolute() && JournalValues::isPrintable(program) &&
        (interfaceName.isEmpty() || RouteEntry::isInterfaceName(interfaceName))) {
        tunnelProgram = program;
        tunnelPid = qMax<qint64>(0, tunnel.value(QLatin1String("pid")).toInteger());
        tunnelIdentity = tunnel.value(QLatin1String("identity")).toString();
        tunnelInterface = interfaceName;
    } else if (session.contains(QLatin1String("tunnel"))) {
        ignored("tunnel", tunnel);
    }

    const QString gateway = session.value(QLatin1String("gateway")).toString();
    const QJsonObject server = session.value(QLatin1String("serverRoute")).toObject();
    const QString serverVia = server.value(QLatin1String("via")).toString();
    if (NetworkText::isAddress(server.value(QLatin1String("host")).toString()) &&
        NetworkText::isAddress(serverVia)) {
        serverHost = server.value(QLatin1String("host")).toString();
        serverRouteGateway = serverVia;
    } else if (session.contains(QLatin1String("serverRoute"))) {
        ignored("serverRoute", server);
    }
    for (const QJsonValue &value : session.value(QLatin1String("bypassRoutes")).toArray()) {
        if (NetworkText::isAddress(gateway) && NetworkText::isAddress(value.toString()) &&
            NetworkText::isIpv4Route(value.toString())) {
            physicalGateway = gateway;
            controlPlaneBypassHosts.append(value.toString());
        } else {
            ignored("bypass route", value);
        }
    }
    for (const QJsonValue &value : session.value(QLatin1String("routes")).toArray()) {
        if (const auto route = RouteEntry::fromJson(value.toObject()))
            installedRoutes.append(*route);
        else
            ignored("route", value);
    }
    const QJsonObject block = session.value(QLatin1String("killSwitch")).toObject();
    if (firewall.adopt(block)) {
        killSwitchHeld = block.value(QLatin1String("held")).toBool();
        killSwitch = {killSwitchHeld, firewall.allowsLan()};
    } else if (session.contains(QLatin1String("killSwitch"))) {
        ignored("kill switch", block);
    }
}

bool MacVpnBackend::saveJournal(QString *error)
{
    QString reason = journalBlocked ? tr("запись более новой версии службы не отложена") : QString();
    if (reason.isEmpty() && journal.save(journalState(), &reason))
        return true;
    qWarning() << "[MacVpnBackend] journal not written" << reason;
    if (error)
        *error = reason;
    return false;
}

bool MacVpnBackend::recordHostChange()
{
    QString reason;
    if (saveJournal(&reason))
        return true;
    setError(tr("Не удалось записать журнал изменений системы: %1").arg(reason));
    return false;
}
