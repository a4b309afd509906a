#include "backend/plan/NameResolver.h"

#include <QCoreApplication>
#include <QDebug>
#include <QElapsedTimer>
#include <QMutex>
#include <QThreadPool>
#include <QTimer>

#include <memory>

namespace NameResolver {

namespace {

// A name whose resolver never answers holds its thread until the system
// gives up; the pool bounds how many such threads there can be.
constexpr int MaxLookupThreads = 32;
constexpr int PassIntervalMs = 20;

QThreadPool &pool()
{
    static QThreadPool threads;
    threads.setMaxThreadCount(MaxLookupThreads);
    return threads;
}

struct Collected
{
    QMutex mutex;
    QHash<QString, QHostInfo> byName;
};

} // namespace

QHash<QString, QHostInfo> resolve(const QStringList &names, const Lookup &lookup, int deadlineMs,
                                  const std::function<bool()> &stop)
{
    // Outlives this call: a lookup still running at the deadline finishes
    // into it later, unread.
    const auto answers = std::make_shared<Collected>();
    QStringList wanted = names;
    wanted.removeDuplicates();
    for (const QString &name : std::as_const(wanted)) {
        pool().start([answers, lookup, name] {
            const QHostInfo info = lookup(name);
            const QMutexLocker locker(&answers->mutex);
            answers->byName.insert(name, info);
            // Wakes the waiting loop at once rather than at its next pass.
            QMetaObject::invokeMethod(
                QCoreApplication::instance(), [] {}, Qt::QueuedConnection);
        });
    }

    QElapsedTimer clock;
    clock.start();
    QTimer wakeUp;
    wakeUp.setSingleShot(true);
    const auto complete = [&answers, &wanted] {
        const QMutexLocker locker(&answers->mutex);
        return answers->byName.size() == wanted.size();
    };
    while (!complete() && clock.elapsed() < deadlineMs && !stop()) {
        wakeUp.start(PassIntervalMs);
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
    }

    pool().clear(); // lookups not yet begun are not wanted any more
    const QMutexLocker locker(&answers->mutex);
    QHash<QString, QHostInfo> result = answers->byName;
    for (const QString &name : std::as_const(wanted)) {
        if (result.contains(name))
            continue;
        QHostInfo late;
        late.setHostName(name);
        late.setError(QHostInfo::UnknownError);
        late.setErrorString(QStringLiteral("no answer in time"));
        result.insert(name, late);
    }
    return result;
}

void Answers::resolve(const QStringList &names, int deadlineMs, const std::function<bool()> &stop)
{
    answers = NameResolver::resolve(names, lookup, deadlineMs, stop);
    for (auto it = answers.cbegin(); it != answers.cend(); ++it) {
        if (it->error() == QHostInfo::UnknownError)
            qWarning() << "[MacVpnBackend] name lookup timed out" << it.key();
    }
}

QHostInfo Answers::of(const QString &name) const
{
    const auto found = answers.constFind(name);
    return found != answers.cend() ? *found : lookup(name);
}

} // namespace NameResolver
