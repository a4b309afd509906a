#pragma once

#include "config/ParsedVpnConfig.h"

#include <QObject>
#include <QString>
#include <QVariantMap>

// The interface the request server talks to. Outcomes are read back through
// status() and lastError() after each call; the signals report progress.
class PlatformVpnBackend : public QObject
{
    Q_OBJECT

public:
    enum Status {
        Disconnected = 0,
        Connecting = 1,
        Connected = 2,
        Disconnecting = 3,
        Error = 4,
    };
    Q_ENUM(Status)

    explicit PlatformVpnBackend(QObject *parent = nullptr);

    virtual Status status() const = 0;
    virtual QString lastError() const = 0;
    virtual void connectVpn(const ParsedVpnConfig &config) = 0;
    virtual void connectVpn(const ParsedVpnConfig &config, const QVariantMap &peer);
    virtual void disconnectVpn() = 0;
    virtual bool refreshStatus(QVariantMap *details);

Q_SIGNALS:
    void connected();
    void disconnected();
    void errorOccurred(const QString &error);
    void statusChanged(PlatformVpnBackend::Status status);
};
