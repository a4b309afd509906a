#include "backend/tunnel/TunnelInterface.h"

#include "backend/BackendConstants.h"
#include "backend/core/CommandRunner.h"
#include "backend/core/LogMasking.h"
#include "backend/plan/PeerValues.h"

#include <QCoreApplication>
#include <QDebug>
#include <QJsonDocument>

namespace TunnelInterface {

QString configure(const MacHostEnvironment &host, const QString &interfaceName,
                  const ParsedVpnConfig &config)
{
    const QString address = PeerValues::clientIpv4(config);
    qInfo() << "[MacVpnBackend] configureInterface"
            << "interface=" << interfaceName << "ip=" << address;
    qInfo().noquote() << "[MacVpnBackend] interface lastConfig ="
                      << QString::fromUtf8(
                             QJsonDocument(LogMasking::clientConfig(config.lastConfig))
                                 .toJson(QJsonDocument::Compact));
    if (address.isEmpty())
        return QCoreApplication::translate("MacVpnBackend", "В конфигурации нет client_ip");

    const QJsonValue mtu = config.lastConfig.value(QLatin1String("mtu"));
    const QString mtuText = mtu.isString() ? mtu.toString() : QStringLiteral("1280");

    // A point-to-point link to ourselves: routing through it is set up
    // separately, so the peer side needs no address of its own.
    QString standardError;
    const QStringList ipv4 = {interfaceName,
                              QStringLiteral("inet"),
                              address,
                              address,
                              QStringLiteral("netmask"),
                              QStringLiteral("255.255.255.255"),
                              QStringLiteral("mtu"),
                              mtuText,
                              QStringLiteral("up")};
    if (!CommandRunner::run(host.ifconfigTool, ipv4, QByteArray(), nullptr, &standardError,
                            CommandTimeoutMs))
        return QCoreApplication::translate("MacVpnBackend", "Не удалось настроить IPv4 интерфейса: %1")
            .arg(standardError.trimmed());

    const QStringList ipv6 = {interfaceName,         QStringLiteral("inet6"),
                              DefaultIpv6Address,    QStringLiteral("prefixlen"),
                              QStringLiteral("128"), QStringLiteral("alias")};
    CommandRunner::run(host.ifconfigTool, ipv6, QByteArray(), nullptr, nullptr, CommandTimeoutMs);
    return QString();
}

} // namespace TunnelInterface
