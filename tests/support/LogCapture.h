#pragma once

#include <QMutex>
#include <QString>
#include <QStringList>
#include <QtGlobal>

// Collects every log line while it lives (from any thread) instead of
// printing it, so tests can assert on the exact lines the service writes.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    QStringList lines() const;
    int count(const QString &fragment) const;
    bool contains(const QString &fragment) const { return count(fragment) > 0; }
    QString text() const { return lines().join(QLatin1Char('\n')); }
    void clear();

private:
    static void handler(QtMsgType type, const QMessageLogContext &context, const QString &message);

    mutable QMutex mutex;
    QStringList captured;
    QtMessageHandler previous = nullptr;
};
