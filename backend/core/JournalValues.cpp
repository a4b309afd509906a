#include "backend/core/JournalValues.h"

#include "config/NetworkText.h"

#include <QDebug>
#include <QJsonArray>
#include <QJsonObject>

namespace JournalValues {

bool isPrintable(const QString &text)
{
    for (const QChar c : text) {
        if (c.category() == QChar::Other_Control || c.category() == QChar::Separator_Line ||
            c.category() == QChar::Separator_Paragraph)
            return false;
    }
    return true;
}

std::optional<QStringList> servers(const QString &service, const QJsonValue &value)
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

void ignored(const char *what, const QJsonValue &value)
{
    qWarning() << "[MacVpnBackend] journal entry ignored:" << what << value;
}

} // namespace JournalValues
