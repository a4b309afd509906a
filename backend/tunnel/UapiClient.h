#pragma once

#include <QString>

// The tunnel program's configuration protocol: one request, one reply, over a
// fresh connection to its socket; the reply ends in "errno=N".
namespace UapiClient {

struct Exchange
{
    QString reply;
    const char *failure = nullptr; // the step that failed, if one did
    QString error;
};

Exchange exchange(const QString &socketPath, const QString &payload, int timeoutMs);

// The reply's error number; -1 for a reply without one, or with one that is
// no number.
int errnoOf(const QString &reply);

} // namespace UapiClient
