#include "backend/core/PendingUndo.h"

#include "backend/core/JournalValues.h"

#include <QCoreApplication>
#include <QJsonArray>

namespace {

constexpr int RetryDelaysMs[] = {10000, 30000, 60000, 120000, 300000};

QString translated(const char *text)
{
    return QCoreApplication::translate("MacVpnBackend", text);
}

} // namespace

PendingUndo::PendingUndo(QObject *parent) : QObject(parent)
{
    timer.setSingleShot(true);
    connect(&timer, &QTimer::timeout, this, &PendingUndo::due);
}

bool PendingUndo::isEmpty() const
{
    return routes.isEmpty() && dns.isEmpty() && hostsBlock.isEmpty() && firewall.isEmpty();
}

QVariantList PendingUndo::steps(const QString &hostsFile) const
{
    QVariantList steps;
    const auto step = [&steps](const QString &what, const QString &error) {
        steps.append(QVariantMap{{QStringLiteral("what"), what}, {QStringLiteral("error"), error}});
    };
    for (auto it = dns.cbegin(); it != dns.cend(); ++it)
        step(translated("DNS службы «%1»").arg(it.key()), it->error);
    if (!hostsBlock.isEmpty())
        step(translated("блок в %1").arg(hostsFile), hostsBlock);
    if (!firewall.isEmpty())
        step(translated("правила pf"), firewall);
    for (const Route &pending : routes)
        step(translated("маршрут %1").arg(pending.route.destination), pending.error);
    return steps;
}

QString PendingUndo::message(const QString &hostsFile) const
{
    QStringList left;
    for (const QVariant &step : steps(hostsFile))
        left.append(step.toMap().value(QStringLiteral("what")).toString());
    return translated(
               "Не удалось вернуть прежние настройки системы: %1. Служба повторит попытку сама")
        .arg(left.join(QLatin1String(", ")));
}

void PendingUndo::schedule(bool afresh)
{
    if (afresh)
        retries = 0;
    if (isEmpty() || retries >= int(std::size(RetryDelaysMs))) {
        timer.stop();
        return;
    }
    timer.start(RetryDelaysMs[retries++]);
}

void PendingUndo::write(QJsonObject *session, QJsonObject *settings) const
{
    QJsonArray pendingRoutes;
    for (const Route &pending : routes) {
        QJsonObject route = pending.route.toJson();
        route.insert(QStringLiteral("error"), pending.error);
        pendingRoutes.append(route);
    }
    if (!pendingRoutes.isEmpty())
        session->insert(QStringLiteral("pendingRoutes"), pendingRoutes);
    if (!firewall.isEmpty())
        session->insert(QStringLiteral("pendingFirewall"), firewall);
    QJsonObject pendingDns;
    for (auto it = dns.cbegin(); it != dns.cend(); ++it)
        pendingDns.insert(
            it.key(),
            QJsonObject{{QStringLiteral("servers"), QJsonArray::fromStringList(it->servers)},
                        {QStringLiteral("tunnel"), QJsonArray::fromStringList(it->tunnel)},
                        {QStringLiteral("error"), it->error}});
    if (!pendingDns.isEmpty())
        settings->insert(QStringLiteral("pendingDns"), pendingDns);
}

void PendingUndo::read(const QJsonObject &session, const QJsonObject &settings)
{
    for (const QJsonValue &value : session.value(QLatin1String("pendingRoutes")).toArray()) {
        if (const auto route = RouteEntry::fromJson(value.toObject()))
            routes.append({*route, value.toObject().value(QLatin1String("error")).toString()});
        else
            JournalValues::ignored("route", value);
    }
    firewall = session.value(QLatin1String("pendingFirewall")).toString();
    const QJsonObject pendingDns = settings.value(QLatin1String("pendingDns")).toObject();
    for (auto it = pendingDns.begin(); it != pendingDns.end(); ++it) {
        const QJsonObject step = it.value().toObject();
        const auto servers = JournalValues::servers(it.key(), step.value(QLatin1String("servers")));
        const auto tunnel = JournalValues::servers(it.key(), step.value(QLatin1String("tunnel")));
        if (servers && tunnel)
            dns.insert(it.key(),
                       {*servers, *tunnel, step.value(QLatin1String("error")).toString()});
    }
}
