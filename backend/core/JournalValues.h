#pragma once

#include <QJsonValue>
#include <QString>
#include <QStringList>

#include <optional>

// Reading back what the journal records: only what is well formed is taken,
// and what is not is logged and left out.
namespace JournalValues {

// Text of one line, as a network service's name or a program's path is.
bool isPrintable(const QString &text);

// A network service's DNS servers, addresses all; nothing for anything else.
std::optional<QStringList> servers(const QString &service, const QJsonValue &value);

void ignored(const char *what, const QJsonValue &value);

} // namespace JournalValues
