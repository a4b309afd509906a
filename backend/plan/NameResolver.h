#pragma once

#include <QHash>
#include <QHostInfo>
#include <QStringList>

#include <functional>

// Looks names up all at once, each on a thread of its own, and waits for them
// only until a deadline, serving the event loop meanwhile: a dead resolver
// then costs a connect that deadline and never holds up other clients.
namespace NameResolver {

using Lookup = std::function<QHostInfo(const QString &)>;

// Every name gets an answer; one that did not come in time says so in its
// error. stop() is asked between events and ends the wait early.
QHash<QString, QHostInfo> resolve(const QStringList &names, const Lookup &lookup, int deadlineMs,
                                  const std::function<bool()> &stop);

// What a connect's names stood for, looked up together; a name it did not
// ask for is looked up when it is asked about.
class Answers
{
public:
    explicit Answers(Lookup lookup) : lookup(std::move(lookup)) {}
    void resolve(const QStringList &names, int deadlineMs, const std::function<bool()> &stop);
    QHostInfo of(const QString &name) const;

private:
    Lookup lookup;
    QHash<QString, QHostInfo> answers;
};

} // namespace NameResolver
