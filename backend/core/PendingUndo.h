#pragma once

#include "backend/host/RouteEntry.h"

#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QVariantList>

// Undo steps that failed: a network service whose DNS servers configd would
// not take back, a route that would not go, our block in the hosts file,
// pf's rules. Each is kept, with its last error, in the journal and tried
// again at the next clean-up, at the next start, and on a back-off timer
// while the service idles; until then the status names what is left. Each
// attempt first asks whether the step is still the service's to undo: what
// the user or another program has made its own since is left alone.
class PendingUndo : public QObject
{
    Q_OBJECT

public:
    struct Route
    {
        RouteEntry route;
        QString error;
    };
    struct Dns
    {
        QStringList servers; // to put back
        QStringList tunnel;  // the tunnel's, which the service set
        QString error;
    };

    explicit PendingUndo(QObject *parent = nullptr);

    QList<Route> routes;
    QMap<QString, Dns> dns;
    QString hostsBlock; // the error, while our block is still in the hosts file
    QString firewall;   // the error, while the kill switch's rules are still in force

    bool isEmpty() const;
    // What is left, in the user's words; for "details", each step with its error.
    QString message(const QString &hostsFile) const;
    QVariantList steps(const QString &hostsFile) const;

    // The back-off: after 10 s, 30 s, 1, 2 and 5 min; afterwards at the next
    // clean-up or start.
    void schedule(bool afresh);
    void stop() { timer.stop(); }

    // Its share of the journal: routes in the session, the rest in the settings.
    void write(QJsonObject *session, QJsonObject *settings) const;
    void read(const QJsonObject &session, const QJsonObject &settings);

Q_SIGNALS:
    void due();

private:
    QTimer timer;
    int retries = 0;
};
