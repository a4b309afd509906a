#pragma once

#include <QJsonObject>
#include <QVariantList>

// What every room of the backend owes the journal and the retries: its own
// record, under its own name, of what it changed and has not undone (what a
// reboot takes away in the session, what outlasts one in the settings), and
// the undo steps that failed, kept with their last errors.
class HostRoom
{
public:
    virtual ~HostRoom() = default;
    virtual void write(QJsonObject *session, QJsonObject *settings) const = 0;
    // Only what is well formed: a damaged or forged journal must never make
    // the service run a command it would not have run itself.
    virtual void read(const QJsonObject &session, const QJsonObject &settings) = 0;
    // Each {what, error}, in the user's words.
    virtual QVariantList pendingSteps() const { return {}; }
    virtual void retryPending() {}
};
