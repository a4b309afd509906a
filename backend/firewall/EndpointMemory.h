#pragma once

#include "backend/core/HostRoom.h"

#include <QJsonObject>
#include <QList>
#include <QPair>
#include <QString>

// The address each named endpoint last went by, for a connect under the
// block, which lets no name be looked up: the names used last are kept,
// newest first, and older ones make room.
class EndpointMemory : public HostRoom
{
public:
    static constexpr int MaxNames = 32;

    QString addressOf(const QString &name) const;
    void remember(const QString &name, const QString &address);

    // Its share of the journal's settings: the names and their addresses,
    // and the order they were used in. A name is taken back only with an
    // address; without the order, in the order of the names.
    void write(QJsonObject *session, QJsonObject *settings) const override;
    void read(const QJsonObject &session, const QJsonObject &settings) override;

private:
    QList<QPair<QString, QString>> names; // newest first
};
