#pragma once

#include <QString>

// What route(8) answered. macOS's route prints a refusal of the kernel (a
// route that exists already, one that is not in the table, an unreachable
// network) and still exits 0: only a malformed command exits otherwise. So
// the outcome is read from what it printed, not from its exit code.
namespace RouteReply {

// Empty when the command did what it was asked; otherwise the error as route
// printed it ("route: writing to routing socket: File exists"). Only a
// change ("add", "delete") reports on its own line of standard output.
QString failure(bool isChange, bool exitedCleanly, const QString &standardOutput,
                const QString &standardError);

// The route asked about or deleted is not there.
bool isNotInTable(const QString &failure);

} // namespace RouteReply
