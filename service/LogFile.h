#pragma once

#include <QByteArray>

// The log file launchd opened for the service's standard output and error.
// newsyslog renames it when it grows and then signals the pid in the pid
// file; the service then opens the file anew, so that it goes on writing to
// the new log rather than to the rotated (and compressed, deleted) one.
class LogFile
{
public:
    LogFile();
    ~LogFile();
    LogFile(const LogFile &) = delete;
    LogFile &operator=(const LogFile &) = delete;

    void reopen();

private:
    QByteArray path; // empty when the log is not a file (a terminal, a pipe)
};
