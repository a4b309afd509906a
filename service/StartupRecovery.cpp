#include "service/StartupRecovery.h"

#include "backend/MacVpnBackend.h"

#include <QDebug>

StartupRecovery::StartupRecovery(MacVpnBackend &backend, QObject *parent)
    : QObject(parent), backend(backend)
{
    retry.setSingleShot(true);
    retry.setInterval(RetryMs);
    connect(&retry, &QTimer::timeout, this, &StartupRecovery::start);
}

StartupRecovery::~StartupRecovery()
{
    if (thread)
        thread->wait();
}

void StartupRecovery::start()
{
    if (thread)
        thread->wait();
    running = true;
    thread.reset(QThread::create([this] {
        const bool recovered = backend.recoverHostChanges();
        QMetaObject::invokeMethod(
            this, [this, recovered] { done(recovered); }, Qt::QueuedConnection);
    }));
    thread->start();
}

void StartupRecovery::done(bool recovered)
{
    if (!recovered) {
        qWarning() << "[MacVpnServiceServer] host journal unavailable; trying again in"
                   << RetryMs / 1000 << "s";
        retry.start();
        return;
    }
    running = false;
    Q_EMIT finished();
}
