#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>

// A blocking client of the service socket, as tests use it: one exchange per
// connection, like the client application.

// Writes the pieces (pausing between them when there are several) and returns
// everything received up to the first line feed; empty on failure.
QByteArray exchangeRaw(const QString &path, const QList<QByteArray> &pieces, int timeoutMs);
// Sends one message and returns the reply; empty on failure.
QJsonObject exchangeJson(const QString &path, const QJsonObject &message, int timeoutMs);
