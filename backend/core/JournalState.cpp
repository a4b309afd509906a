// The backend's bookkeeping of host changes, as the journal keeps it on disk.
#include "backend/MacVpnBackend.h"
#include "config/NetworkText.h"

#include <QDebug>
#include <QJsonArray>
#include <QRegularExpression>

namespace {

constexpr int JournalVersion = 1;

bool isInterfaceName(const QString &text)
{
    static const QRegularExpression name(QStringLiteral("^[a-z]+[0-9]+$"));
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

} // namespace

QJsonObject MacVpnBackend::journalState() const
{
    QJsonObject state;
    if (tunnelPid > 0)
        state.insert(QStringLiteral("tunnel"),
                     QJsonObject{{QStringLiteral("pid"), tunnelPid},
                                 {QStringLiteral("identity"), tunnelIdentity}});
    if (!controlPlaneBypassHosts.isEmpty())
        state.insert(QStringLiteral("gateway"), physicalGateway);
    if (!serverRouteGateway.isEmpty())
        state.insert(QStringLiteral("serverRoute"),
                     QJsonObject{{QStringLiteral("host"), serverHost},
                                 {QStringLiteral("via"), serverRouteGateway}});
    if (!controlPlaneBypassHosts.isEmpty())
        state.insert(QStringLiteral("bypassRoutes"),
                     QJsonArray::fromStringList(controlPlaneBypassHosts));
    if (hostsPinned)
        state.insert(QStringLiteral("hostsBlock"), true);
    QJsonArray routes;
    for (const RouteEntry &route : installedRoutes)
        routes.append(QJsonObject{{QStringLiteral("family"), route.family},
                                  {QStringLiteral("destination"), route.destination},
                                  {QStringLiteral("type"), route.type},
                                  {QStringLiteral("via"), route.via}});
    if (!routes.isEmpty())
        state.insert(QStringLiteral("routes"), routes);
    QJsonObject dns;
    for (auto it = savedDnsServers.cbegin(); it != savedDnsServers.cend(); ++it)
        dns.insert(it.key(), QJsonArray::fromStringList(it.value()));
    if (!dns.isEmpty())
        state.insert(QStringLiteral("dns"), dns);
    if (!state.isEmpty())
        state.insert(QStringLiteral("version"), JournalVersion);
    return state;
}

// Takes in only what is well formed: a damaged or forged journal must never
// make the service run a command it would not have run itself.
void MacVpnBackend::adoptJournalState(const QJsonObject &state)
{
    if (state.isEmpty())
        return;
    if (state.value(QLatin1String("version")).toInt() != JournalVersion) {
        ignored("unknown version", state.value(QLatin1String("version")));
        return;
    }

    const QJsonObject tunnel = state.value(QLatin1String("tunnel")).toObject();
    const qint64 pid = tunnel.value(QLatin1String("pid")).toInteger();
    const QString identity = tunnel.value(QLatin1String("identity")).toString();
    if (pid > 1 && !identity.isEmpty()) {
        tunnelPid = pid;
        tunnelIdentity = identity;
    } else if (state.contains(QLatin1String("tunnel"))) {
        ignored("tunnel", tunnel);
    }

    const QString gateway = state.value(QLatin1String("gateway")).toString();
    const bool gatewayValid = NetworkText::isAddress(gateway);
    const QJsonObject server = state.value(QLatin1String("serverRoute")).toObject();
    const QString serverVia = server.value(QLatin1String("via")).toString();
    if (NetworkText::isAddress(server.value(QLatin1String("host")).toString()) &&
        NetworkText::isAddress(serverVia)) {
        serverHost = server.value(QLatin1String("host")).toString();
        serverRouteGateway = serverVia;
    } else if (state.contains(QLatin1String("serverRoute"))) {
        ignored("serverRoute", state.value(QLatin1String("serverRoute")));
    }
    for (const QJsonValue &value : state.value(QLatin1String("bypassRoutes")).toArray()) {
        if (gatewayValid && isIpv4Route(value.toString()) &&
            !value.toString().contains(QLatin1Char('/'))) {
            physicalGateway = gateway;
            controlPlaneBypassHosts.append(value.toString());
        } else {
            ignored("bypass route", value);
        }
    }
    hostsPinned = state.value(QLatin1String("hostsBlock")).toBool();

    for (const QJsonValue &value : state.value(QLatin1String("routes")).toArray()) {
        const QJsonObject object = value.toObject();
        const RouteEntry route{object.value(QLatin1String("family")).toString(),
                               object.value(QLatin1String("destination")).toString(),
                               object.value(QLatin1String("type")).toString(),
                               object.value(QLatin1String("via")).toString()};
        const bool familyMatches =
            route.family == QLatin1String("inet6")
                ? isIpv6Route(route.destination)
                : route.family == QLatin1String("inet") && isIpv4Route(route.destination);
        const bool typeValid =
            route.type == QLatin1String("-net") || route.type == QLatin1String("-host");
        if (familyMatches && typeValid &&
            (NetworkText::isAddress(route.via) || isInterfaceName(route.via)))
            installedRoutes.append(route);
        else
            ignored("route", value);
    }

    const QJsonObject dns = state.value(QLatin1String("dns")).toObject();
    for (auto it = dns.begin(); it != dns.end(); ++it) {
        QStringList servers;
        bool valid = !it.key().trimmed().isEmpty() && isPrintable(it.key()) && it.value().isArray();
        for (const QJsonValue &server : it.value().toArray()) {
            valid = valid && NetworkText::isAddress(server.toString());
            servers.append(server.toString());
        }
        if (valid)
            savedDnsServers.insert(it.key(), servers);
        else
            ignored("DNS servers", QJsonObject{{it.key(), it.value()}});
    }
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
