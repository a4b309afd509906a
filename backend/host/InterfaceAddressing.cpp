#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"
#include "backend/core/LogMasking.h"

#include <QDebug>
#include <QJsonDocument>

bool MacVpnBackend::configureInterface(const ParsedVpnConfig &config)
{
    const QString address = clientIpv4(config);
    qInfo() << "[MacVpnBackend] configureInterface"
            << "interface=" << tunnelInterface << "ip=" << address;
    qInfo().noquote() << "[MacVpnBackend] interface lastConfig ="
                      << QString::fromUtf8(
                             QJsonDocument(LogMasking::clientConfig(config.lastConfig))
                                 .toJson(QJsonDocument::Compact));
    if (address.isEmpty()) {
        setError(tr("В конфигурации нет client_ip"));
        return false;
    }

    const QJsonValue mtu = config.lastConfig.value(QLatin1String("mtu"));
    const QString mtuText = mtu.isString() ? mtu.toString() : QStringLiteral("1280");

    // A point-to-point link to ourselves: routing through it is set up
    // separately, so the peer side needs no address of its own.
    QString standardError;
    const QStringList ipv4 = {tunnelInterface,
                              QStringLiteral("inet"),
                              address,
                              address,
                              QStringLiteral("netmask"),
                              QStringLiteral("255.255.255.255"),
                              QStringLiteral("mtu"),
                              mtuText,
                              QStringLiteral("up")};
    if (!runCommand(host.ifconfigTool, ipv4, nullptr, &standardError, CommandTimeoutMs)) {
        setError(tr("Не удалось настроить IPv4 интерфейса: %1").arg(standardError.trimmed()));
        return false;
    }

    const QStringList ipv6 = {tunnelInterface,       QStringLiteral("inet6"),
                              DefaultIpv6Address,    QStringLiteral("prefixlen"),
                              QStringLiteral("128"), QStringLiteral("alias")};
    runCommand(host.ifconfigTool, ipv6, nullptr, nullptr, CommandTimeoutMs);
    return true;
}
