#include "backend/core/PendingUndo.h"

#include <QCoreApplication>
#include <QStringList>
#include <QVariantMap>

namespace {

constexpr int RetryDelaysMs[] = {10000, 30000, 60000, 120000, 300000};

} // namespace

PendingUndo::PendingUndo(QList<HostRoom *> rooms, QObject *parent)
    : QObject(parent), rooms(std::move(rooms))
{
    timer.setSingleShot(true);
    connect(&timer, &QTimer::timeout, this, &PendingUndo::due);
}

QVariantList PendingUndo::steps() const
{
    QVariantList steps;
    for (const HostRoom *room : rooms)
        steps += room->pendingSteps();
    return steps;
}

QString PendingUndo::message() const
{
    QStringList left;
    for (const QVariant &step : steps())
        left.append(step.toMap().value(QStringLiteral("what")).toString());
    return QCoreApplication::translate(
               "MacVpnBackend",
               "Не удалось вернуть прежние настройки системы: %1. Служба повторит попытку сама")
        .arg(left.join(QLatin1String(", ")));
}

void PendingUndo::retry()
{
    for (HostRoom *room : rooms)
        room->retryPending();
}

void PendingUndo::schedule(bool afresh)
{
    if (afresh)
        retries = 0;
    if (retries >= int(std::size(RetryDelaysMs))) {
        timer.stop();
        return;
    }
    timer.start(RetryDelaysMs[retries++]);
}
