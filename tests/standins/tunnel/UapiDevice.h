#pragma once

#include <QList>
#include <QString>
#include <QStringList>

// The configuration a userspace WireGuard/AmneziaWG device holds, and the
// text protocol that changes and lists it. Values are validated the way a
// real implementation does; a failed transaction leaves the device unchanged.
class UapiDevice
{
public:
    // Handles one request (without its closing empty line) and returns the
    // errno for the reply; get requests also produce the listing.
    int handle(const QString &request, QString *listing);

private:
    struct Peer
    {
        QString publicKey;
        QString presharedKey;
        QString endpoint;
        int keepAlive = 0;
        QStringList allowedIps;
    };

    int set(const QStringList &lines);
    QString get() const;

    QString privateKey;
    int listenPort = 0;
    QList<QPair<QString, QString>> amneziaKeys;
    QList<Peer> peers;
};
