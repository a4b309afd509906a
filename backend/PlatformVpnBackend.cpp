#include "backend/PlatformVpnBackend.h"

PlatformVpnBackend::PlatformVpnBackend(QObject *parent) : QObject(parent)
{
    qRegisterMetaType<PlatformVpnBackend::Status>("PlatformVpnBackend::Status");
}

void PlatformVpnBackend::connectVpn(const ParsedVpnConfig &config, const QVariantMap &peer)
{
    Q_UNUSED(peer);
    connectVpn(config);
}

bool PlatformVpnBackend::refreshStatus(QVariantMap *details)
{
    if (details)
        details->clear();
    return true;
}
