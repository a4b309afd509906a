#pragma once

#include <QJsonObject>
#include <QList>
#include <QPair>
#include <QString>

// The address each named endpoint last went by, for a connect under the
// block, which lets no name be looked up: the names used last are kept,
// newest first, and older ones make room.
class EndpointMemory
{
public:
    static constexpr int MaxNames = 32;

    QString addressOf(const QString &name) const;
    void remember(const QString &name, const QString &address);

    // Its share of the journal's settings: the names and their addresses,
    // and the order they were used in.
    void write(QJsonObject *settings) const;
    // Only a name and an address each; a record without the order (an
    // earlier release's) is taken in the order of its names.
    void read(const QJsonObject &settings);

private:
    QList<QPair<QString, QString>> names; // newest first
};
