#pragma once

#include "backend/MacHostEnvironment.h"
#include "backend/core/HostRoom.h"

#include <QJsonObject>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QVariantList>

// The tunnel's DNS servers on every enabled network service, as one room:
// each service's own servers are read and recorded before they change, and
// put back only while they are still the tunnel's that the service set:
// servers the user (or the system) chose since are theirs. A service whose
// servers cannot be read could not be put back either: it keeps its own.
// What outlasts a reboot is recorded durably, so the record is the
// settings' share of the journal.
class DnsSettings : public HostRoom
{
public:
    explicit DnsSettings(const MacHostEnvironment &host) : host(host) {}

    // The services "networksetup -listallnetworkservices" lists as enabled.
    static QStringList enabledServices(const QString &listing);
    // The enabled services, or none when they cannot be listed.
    bool listServices(QStringList *services) const;

    // First, before anything changes: each service's servers read and taken
    // into the record; the services to change. Then, once the record is
    // saved, set; or, when it could not be, forgotten.
    QStringList prepare(const QStringList &services);
    void set(const QStringList &services, const QStringList &servers);
    void forget(const QStringList &services);
    void setTunnelServers(const QStringList &servers) { vpnDnsServers = servers; }
    QStringList tunnelServers() const { return vpnDnsServers; }
    bool covers(const QString &service) const { return savedDnsServers.contains(service); }

    // Every service put back that is still ours; one that will not be is kept.
    void restore();

    void retryPending() override;
    QVariantList pendingSteps() const override;
    void write(QJsonObject *session, QJsonObject *settings) const override;
    void read(const QJsonObject &session, const QJsonObject &settings) override;

private:
    QString undo(const QString &service, const QStringList &servers,
                 const QStringList &tunnel) const;
    QString setServers(const QString &service, const QStringList &servers) const;

    const MacHostEnvironment &host;
    QMap<QString, QList<QString>> savedDnsServers;
    QStringList vpnDnsServers; // set on the network services while connected
    struct Pending
    {
        QStringList servers; // to put back
        QStringList tunnel;  // the tunnel's, which the service set
        QString error;
    };
    QMap<QString, Pending> pending;
};
