#include "config/VpnConfigParser.h"

#include <QCoreApplication>
#include <QDebug>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QtEndian>

namespace {

// The messages the user sees, looked up in the QObject translation context.
QString message(const char *text)
{
    return QCoreApplication::translate("QObject", text);
}

VpnConfigParseResult failure(VpnConfigParseResult result, const char *text,
                             const QString &parserError = QString())
{
    result.success = false;
    result.errorMessage = message(text);
    if (parserError.isEmpty())
        qWarning() << "[VpnConfigParser]" << result.errorMessage;
    else
        qWarning() << "[VpnConfigParser]" << result.errorMessage << parserError;
    return result;
}

// Chooses the container: the first non-empty object, or the first whose name
// is the default container when one is named.
QJsonObject chooseContainer(const QJsonArray &containers, const QString &defaultContainer)
{
    for (const QJsonValue &value : containers) {
        const QJsonObject container = value.toObject();
        if (container.isEmpty())
            continue;
        if (defaultContainer.isEmpty() ||
            container.value(QLatin1String("container")).toString() == defaultContainer)
            return container;
    }
    return QJsonObject();
}

QString chooseProtocol(const QJsonObject &container, const QString &containerName)
{
    QString protocol;
    if (containerName.contains(QLatin1String("awg")))
        protocol = QStringLiteral("awg");
    else if (containerName.contains(QLatin1String("wireguard")))
        protocol = QStringLiteral("wireguard");
    if (!protocol.isEmpty() && container.value(protocol).isObject())
        return protocol;
    // QJsonObject keeps its keys sorted, so this is the first object member by name.
    for (auto it = container.begin(); it != container.end(); ++it) {
        if (it.key() != QLatin1String("container") && it.value().isObject())
            return it.key();
    }
    return protocol;
}

// qUncompress allocates the size the data claims before it inflates a byte.
// Deflate cannot expand more than about 1032:1, so a larger claim is corrupt
// and must not cost gigabytes of memory first.
bool plausiblyCompressed(const QByteArray &data)
{
    if (data.size() < 4)
        return true; // too short for a claim; qUncompress refuses it itself
    const quint64 claimed = qFromBigEndian<quint32>(data.constData());
    return claimed <= quint64(data.size() - 4) * 1032 + 64;
}

} // namespace

VpnConfigParseResult VpnConfigParser::parseConfig(const QString &connectionString)
{
    QString text = connectionString.trimmed();
    if (text.isEmpty())
        return failure({}, QT_TRANSLATE_NOOP("QObject", "Конфигурация соединения пустая"));
    if (text.startsWith(QLatin1String("vpn://")))
        text.remove(0, 6);

    // Characters outside the URL-safe alphabet are skipped rather than
    // rejected, so a string pasted with line breaks or padding still decodes.
    const QByteArray decoded = QByteArray::fromBase64(text.toUtf8(), QByteArray::Base64UrlEncoding);
    if (decoded.isEmpty())
        return failure({},
                       QT_TRANSLATE_NOOP("QObject", "Не удалось декодировать VPN-конфигурацию"));

    const QByteArray json = plausiblyCompressed(decoded) ? qUncompress(decoded) : QByteArray();
    if (json.isEmpty())
        return failure({}, QT_TRANSLATE_NOOP("QObject", "Не удалось распаковать VPN-конфигурацию"));

    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject())
        return failure({}, QT_TRANSLATE_NOOP("QObject", "VPN-конфигурация имеет неверный формат"),
                       parseError.errorString());

    VpnConfigParseResult result;
    const QJsonObject root = document.object();
    ParsedVpnConfig &config = result.config;
    result.rootObject = root;
    config.rawConfig = root;
    config.defaultContainer = root.value(QLatin1String("defaultContainer")).toString();
    config.hostName = root.value(QLatin1String("hostName")).toString();
    config.dns1 = root.value(QLatin1String("dns1")).toString();
    config.dns2 = root.value(QLatin1String("dns2")).toString();

    const QJsonArray containers = root.value(QLatin1String("containers")).toArray();
    if (containers.isEmpty())
        return failure(std::move(result),
                       QT_TRANSLATE_NOOP("QObject", "В VPN-конфигурации нет контейнеров"));

    const QJsonObject container = chooseContainer(containers, config.defaultContainer);
    if (container.isEmpty())
        return failure(std::move(result),
                       QT_TRANSLATE_NOOP("QObject", "Контейнер VPN-конфигурации не найден"));
    config.container = container.value(QLatin1String("container")).toString();

    config.protocolName = chooseProtocol(container, config.container);
    if (config.protocolName.isEmpty())
        return failure(std::move(result),
                       QT_TRANSLATE_NOOP("QObject", "Протокол VPN-конфигурации не найден"));

    config.protocolConfig = container.value(config.protocolName).toObject();
    if (config.protocolConfig.isEmpty())
        return failure(
            std::move(result),
            QT_TRANSLATE_NOOP("QObject", "Настройки протокола VPN-конфигурации не найдены"));

    config.lastConfigRaw = config.protocolConfig.value(QLatin1String("last_config")).toString();
    if (config.lastConfigRaw.isEmpty())
        return failure(std::move(result),
                       QT_TRANSLATE_NOOP("QObject", "В VPN-конфигурации нет client-конфига"));

    const QJsonDocument client =
        QJsonDocument::fromJson(config.lastConfigRaw.toUtf8(), &parseError);
    if (parseError.error != QJsonParseError::NoError || !client.isObject())
        return failure(std::move(result),
                       QT_TRANSLATE_NOOP("QObject", "Client-конфиг VPN имеет неверный формат"),
                       parseError.errorString());
    config.lastConfig = client.object();
    if (config.hostName.isEmpty())
        config.hostName = config.lastConfig.value(QLatin1String("hostName")).toString();

    result.success = true;
    return result;
}

VpnConfigParseResult VpnConfigParser::parsePeerConfig(const QVariantMap &peer)
{
    return parseConfig(peer.value(QStringLiteral("config")).toString());
}
