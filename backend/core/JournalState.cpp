// The backend's bookkeeping of host changes, as the journal keeps it on disk.
#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"
#include "backend/core/BootSession.h"
#include "config/NetworkText.h"

#include <QDebug>
#include <QFileInfo>
#include <QJsonArray>
#include <QRegularExpression>

#include <optional>

namespace {

constexpr int JournalVersion = 2;

bool isInterfaceName(const QString &text)
{
    static const QRegularExpression name(
        QRegularExpression::anchoredPattern(QStringLiteral("[a-z]+[0-9]+")));
    return name.match(text).hasMatch();
}

bool isPrintable(const QString &text)
{
    for (const QChar c : text) {
        if (c.category() == QChar::Other_Control || c.category() == QChar::Separator_Line ||
            c.category() == QChar::Separator_Paragraph)
            return false;
    }
    return true;
}

void ignored(const char *what, const QJsonValue &value)
{
    qWarning() << "[MacVpnBackend] journal entry ignored:" << what << value;
}

QJsonObject routeObject(const MacVpnBackend::RouteEntry &route)
{
    return {{QStringLiteral("family"), route.family},
            {QStringLiteral("destination"), route.destination},
            {QStringLiteral("type"), route.type},
            {QStringLiteral("via"), route.via}};
}

// A route the service could have added itself, or nothing.
std::optional<MacVpnBackend::RouteEntry> routeFrom(const QJsonObject &object)
{
    const MacVpnBackend::RouteEntry route{object.value(QLatin1String("family")).toString(),
                                          object.value(QLatin1String("destination")).toString(),
                                          object.value(QLatin1String("type")).toString(),
                                          object.value(QLatin1String("via")).toString()};
    const bool ipv6 = route.family == QLatin1String("inet6");
    const bool familyMatches = NetworkText::isRange(route.destination) &&
                               (ipv6 ? NetworkText::isIpv6Route(route.destination)
                                     : route.family == QLatin1String("inet") &&
                                           NetworkText::isIpv4Route(route.destination));
    const bool typeValid =
        route.type == QLatin1String("-net") || route.type == QLatin1String("-host");
    if (familyMatches && typeValid &&
        (NetworkText::isAddress(route.via) || isInterfaceName(route.via)))
        return route;
    return std::nullopt;
}

// A network service's DNS servers as recorded, or nothing.
std::optional<QStringList> serversFrom(const QString &service, const QJsonValue &value)
{
    bool valid = value.isArray() && !service.trimmed().isEmpty() && isPrintable(service);
    QStringList servers;
    for (const QJsonValue &server : value.toArray()) {
        valid = valid && NetworkText::isAddress(server.toString());
        servers.append(server.toString());
    }
    if (valid)
        return servers;
    ignored("DNS servers", QJsonObject{{service, value}});
    return std::nullopt;
}

} // namespace

HostJournal::Records MacVpnBackend::journalState() const
{
    QJsonObject session;
    if (!tunnelProgram.isEmpty())
        session.insert(QStringLiteral("tunnel"),
                       QJsonObject{{QStringLiteral("program"), tunnelProgram},
                                   {QStringLiteral("pid"), tunnelPid},
                                   {QStringLiteral("identity"), tunnelIdentity}});
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
        routes.append(routeObject(route));
    if (!routes.isEmpty())
        session.insert(QStringLiteral("routes"), routes);
    if (firewallEngaged)
        session.insert(QStringLiteral("killSwitch"),
                       QJsonObject{{QStringLiteral("anchor"), QString(KillSwitchAnchor)},
                                   {QStringLiteral("token"), firewallToken},
                                   {QStringLiteral("enabling"), firewallEnabling},
                                   {QStringLiteral("knownTokens"),
                                    QJsonArray::fromStringList(firewallKnownReferences)},
                                   {QStringLiteral("blocking"), killSwitchBlocking},
                                   {QStringLiteral("error"), pendingUndo.firewall}});
    QJsonArray pendingRoutes;
    for (const PendingRoute &pending : pendingUndo.routes) {
        QJsonObject route = routeObject(pending.route);
        route.insert(QStringLiteral("error"), pending.error);
        pendingRoutes.append(route);
    }
    if (!pendingRoutes.isEmpty())
        session.insert(QStringLiteral("pendingRoutes"), pendingRoutes);
    if (!session.isEmpty()) {
        session.insert(QStringLiteral("version"), JournalVersion);
        session.insert(QStringLiteral("boot"), BootSession::current());
    }

    QJsonObject settings;
    QJsonObject dns;
    for (auto it = savedDnsServers.cbegin(); it != savedDnsServers.cend(); ++it)
        dns.insert(it.key(), QJsonArray::fromStringList(it.value()));
    if (!dns.isEmpty())
        settings.insert(QStringLiteral("dns"), dns);
    QJsonObject pendingDns;
    for (auto it = pendingUndo.dns.cbegin(); it != pendingUndo.dns.cend(); ++it)
        pendingDns.insert(it.key(), QJsonObject{{QStringLiteral("servers"),
                                                 QJsonArray::fromStringList(it->servers)},
                                                {QStringLiteral("error"), it->error}});
    if (!pendingDns.isEmpty())
        settings.insert(QStringLiteral("pendingDns"), pendingDns);
    if (hostsPinned || !pendingUndo.hostsBlock.isEmpty())
        settings.insert(QStringLiteral("hostsBlock"),
                        QJsonObject{{QStringLiteral("addedLineFeed"), hostsAddedLineFeed},
                                    {QStringLiteral("error"), pendingUndo.hostsBlock}});
    if (!settings.isEmpty())
        settings.insert(QStringLiteral("version"), JournalVersion);
    return {session, settings};
}

// Takes in only what is well formed: a damaged or forged journal must never
// make the service run a command it would not have run itself. What the
// session recorded vanished with an earlier boot, and is only dropped.
void MacVpnBackend::adoptJournalState(const HostJournal::Records &records)
{
    const QJsonObject &session = records.session;
    const QJsonObject &settings = records.settings;
    for (const QJsonObject *state : {&session, &settings}) {
        if (!state->isEmpty() && state->value(QLatin1String("version")).toInt() != JournalVersion) {
            ignored("unknown version", state->value(QLatin1String("version")));
            return;
        }
    }
    const QString boot = BootSession::current();
    if (!session.isEmpty() && (boot.isEmpty() || session.value(QLatin1String("boot")) != boot)) {
        qInfo() << "[MacVpnBackend] routes, tunnel program and pf rules of an earlier boot are "
                   "gone with it; their record is dropped";
    } else if (!session.isEmpty()) {
        const QJsonObject tunnel = session.value(QLatin1String("tunnel")).toObject();
        const QString program = tunnel.value(QLatin1String("program")).toString();
        if (QFileInfo(program).isAbsolute() && isPrintable(program)) {
            tunnelProgram = program;
            tunnelPid = qMax<qint64>(0, tunnel.value(QLatin1String("pid")).toInteger());
            tunnelIdentity = tunnel.value(QLatin1String("identity")).toString();
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
            if (const auto route = routeFrom(value.toObject()))
                installedRoutes.append(*route);
            else
                ignored("route", value);
        }
        const QJsonObject firewall = session.value(QLatin1String("killSwitch")).toObject();
        static const QRegularExpression digits(
            QRegularExpression::anchoredPattern(QStringLiteral("[0-9]{0,20}")));
        const QString token = firewall.value(QLatin1String("token")).toString();
        bool valid = digits.match(token).hasMatch();
        QStringList known;
        for (const QJsonValue &value : firewall.value(QLatin1String("knownTokens")).toArray()) {
            valid = valid && digits.match(value.toString()).hasMatch();
            known.append(value.toString());
        }
        if (firewall.value(QLatin1String("anchor")) == QString(KillSwitchAnchor) && valid) {
            firewallEngaged = true;
            firewallToken = token;
            firewallEnabling = firewall.value(QLatin1String("enabling")).toBool();
            firewallKnownReferences = known;
            pendingUndo.firewall = firewall.value(QLatin1String("error")).toString();
        } else if (session.contains(QLatin1String("killSwitch"))) {
            ignored("kill switch", firewall);
        }
        for (const QJsonValue &value : session.value(QLatin1String("pendingRoutes")).toArray()) {
            if (const auto route = routeFrom(value.toObject()))
                pendingUndo.routes.append(
                    {*route, value.toObject().value(QLatin1String("error")).toString()});
            else
                ignored("route", value);
        }
    }

    const QJsonObject dns = settings.value(QLatin1String("dns")).toObject();
    for (auto it = dns.begin(); it != dns.end(); ++it) {
        if (const auto servers = serversFrom(it.key(), it.value()))
            savedDnsServers.insert(it.key(), *servers);
    }
    const QJsonObject pendingDns = settings.value(QLatin1String("pendingDns")).toObject();
    for (auto it = pendingDns.begin(); it != pendingDns.end(); ++it) {
        const QJsonObject step = it.value().toObject();
        if (const auto servers = serversFrom(it.key(), step.value(QLatin1String("servers"))))
            pendingUndo.dns.insert(it.key(),
                                   {*servers, step.value(QLatin1String("error")).toString()});
    }
    const QJsonObject block = settings.value(QLatin1String("hostsBlock")).toObject();
    hostsPinned = settings.contains(QLatin1String("hostsBlock"));
    hostsAddedLineFeed = block.value(QLatin1String("addedLineFeed")).toBool();
}

bool MacVpnBackend::saveJournal(QString *error)
{
    QString reason;
    if (journal.save(journalState(), &reason))
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
