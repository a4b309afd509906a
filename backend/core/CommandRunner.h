#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

// The one way the service runs a system tool: started, fed its input,
// waited for with a time-out, and logged with all it printed. True only for
// a normal exit with status 0.
namespace CommandRunner {

// A check that runs every few seconds for as long as the service is
// connected says only when it fails: a day's log is not made of its answers.
enum class Log { Everything, FailuresOnly };

bool run(const QString &program, const QStringList &arguments, const QByteArray &input,
         QString *standardOutput, QString *standardError, int timeoutMs, Log log = Log::Everything);

} // namespace CommandRunner
