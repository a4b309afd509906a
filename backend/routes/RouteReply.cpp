#include "backend/routes/RouteReply.h"

#include <QStringList>

namespace RouteReply {

namespace {

constexpr auto SocketError = QLatin1String("writing to routing socket:");

// "add net 0.0.0.0/1: gateway utun5: File exists": whatever follows the
// command, its destination and gateway is the kernel's refusal.
QString refusalOnLine(const QString &line)
{
    const QStringList parts = line.trimmed().split(QLatin1String(": "));
    const bool gateway = parts.size() > 1 && parts[1].startsWith(QLatin1String("gateway "));
    const qsizetype known = gateway ? 2 : 1;
    return parts.size() > known ? line.trimmed() : QString();
}

} // namespace

QString failure(bool isChange, bool exitedCleanly, const QString &standardOutput,
                const QString &standardError)
{
    const QString error = standardError.trimmed();
    if (!exitedCleanly || error.contains(SocketError))
        return error.isEmpty() ? QStringLiteral("route failed") : error;
    if (!isChange)
        return QString();
    for (const QString &line : standardOutput.split(QLatin1Char('\n'))) {
        const QString refusal = refusalOnLine(line);
        if (!refusal.isEmpty())
            return refusal;
    }
    return QString();
}

bool isNotInTable(const QString &failure)
{
    return failure.endsWith(QLatin1String("not in table"));
}

} // namespace RouteReply
