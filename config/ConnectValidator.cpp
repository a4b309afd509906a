#include "config/ConnectValidator.h"

#include "config/NetworkText.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QRegularExpression>

namespace ConnectValidator {

namespace {

QString missing(const QString &field)
{
    return QCoreApplication::translate("ConnectValidator", "В конфигурации нет %1").arg(field);
}

QString invalid(const QString &field)
{
    return QCoreApplication::translate("ConnectValidator",
                                       "Недопустимое значение %1 в конфигурации VPN")
        .arg(field);
}

QString tooMany(const QString &field, int limit)
{
    return QCoreApplication::translate("ConnectValidator",
                                       "Слишком много записей в %1: не больше %2")
        .arg(field)
        .arg(limit);
}

// The whole text: a pattern anchored with '$' alone would let a final line
// feed through, and with it whatever lines follow.
bool matches(const char *pattern, const QString &text)
{
    return QRegularExpression(QRegularExpression::anchoredPattern(QLatin1String(pattern)))
        .match(text)
        .hasMatch();
}

bool inRange(const QString &text, quint64 low, quint64 high)
{
    bool ok = false;
    const quint64 value = text.toULongLong(&ok, 10);
    return matches("[0-9]{1,10}", text) && ok && value >= low && value <= high;
}

// A WireGuard key: 32 bytes in standard Base64.
bool isKey(const QString &text)
{
    return matches("[A-Za-z0-9+/]{43}=", text) &&
           QByteArray::fromBase64(text.toLatin1()).size() == 32;
}

bool isPort(const QJsonValue &value)
{
    if (value.isDouble())
        return value.toDouble() >= 1 && value.toDouble() <= 65535 &&
               value.toDouble() == double(value.toInt());
    return value.isString() && inRange(value.toString(), 1, 65535);
}

// AmneziaWG's magic headers: a 32-bit value or a range "low-high".
bool isHeader(const QString &text)
{
    const QStringList bounds = text.split(QLatin1Char('-'));
    if (bounds.size() == 1)
        return inRange(text, 0, 0xffffffffu);
    return bounds.size() == 2 && inRange(bounds[0], 0, 0xffffffffu) &&
           inRange(bounds[1], 0, 0xffffffffu) && bounds[0].toULongLong() <= bounds[1].toULongLong();
}

// Packet templates are free text, but printable and on one line.
bool isPacketTemplate(const QString &text)
{
    return matches("[\\x20-\\x7e]{1,4096}", text);
}

QString amneziaProblem(const QJsonObject &client)
{
    struct Rule
    {
        const char *key;
        bool (*valid)(const QString &);
    };
    static const Rule rules[] = {
        {"Jc", [](const QString &t) { return inRange(t, 0, 128); }},
        {"Jmin", [](const QString &t) { return inRange(t, 0, 1280); }},
        {"Jmax", [](const QString &t) { return inRange(t, 0, 1280); }},
        {"S1", [](const QString &t) { return inRange(t, 0, 1280); }},
        {"S2", [](const QString &t) { return inRange(t, 0, 1280); }},
        {"S3", [](const QString &t) { return inRange(t, 0, 1280); }},
        {"S4", [](const QString &t) { return inRange(t, 0, 1280); }},
        {"H1", isHeader},
        {"H2", isHeader},
        {"H3", isHeader},
        {"H4", isHeader},
        {"I1", isPacketTemplate},
        {"I2", isPacketTemplate},
        {"I3", isPacketTemplate},
        {"I4", isPacketTemplate},
        {"I5", isPacketTemplate},
    };
    // Only non-empty strings reach the tunnel program; anything else is left out.
    for (const Rule &rule : rules) {
        const QJsonValue value = client.value(QLatin1String(rule.key));
        if (value.isString() && !value.toString().isEmpty() && !rule.valid(value.toString()))
            return invalid(QLatin1String(rule.key));
    }
    const QString jmin = client.value(QLatin1String("Jmin")).toString();
    const QString jmax = client.value(QLatin1String("Jmax")).toString();
    if (!jmin.isEmpty() && !jmax.isEmpty() && jmin.toUInt() > jmax.toUInt())
        return invalid(QStringLiteral("Jmin"));
    return QString();
}

QString clientProblem(const ParsedVpnConfig &config)
{
    const QJsonObject &client = config.lastConfig;
    for (const char *key : {"client_priv_key", "server_pub_key"}) {
        const QJsonValue value = client.value(QLatin1String(key));
        if (value.toString().isEmpty())
            return missing(QLatin1String(key));
        if (!isKey(value.toString()))
            return invalid(QLatin1String(key));
    }
    const QJsonValue psk = client.value(QLatin1String("psk_key"));
    if (psk.isString() && !psk.toString().isEmpty() && !isKey(psk.toString()))
        return invalid(QStringLiteral("psk_key"));

    const QString clientIp = client.value(QLatin1String("client_ip")).toString();
    if (clientIp.isEmpty())
        return missing(QStringLiteral("client_ip"));
    if (clientIp != clientIp.trimmed() || !NetworkText::isIpv4Route(clientIp))
        return invalid(QStringLiteral("client_ip"));

    const QString host = config.hostName.isEmpty()
                             ? client.value(QLatin1String("hostName")).toString()
                             : config.hostName;
    if (host.isEmpty())
        return missing(QStringLiteral("hostName"));
    if (!NetworkText::isAddress(host) && !NetworkText::isHostName(host))
        return invalid(QStringLiteral("hostName"));
    if (!client.contains(QLatin1String("port")))
        return missing(QStringLiteral("port"));
    if (!isPort(client.value(QLatin1String("port"))))
        return invalid(QStringLiteral("port"));

    // Strings only: anything else stands for the default value.
    const QJsonValue mtu = client.value(QLatin1String("mtu"));
    if (mtu.isString() && !inRange(mtu.toString(), 576, 9000))
        return invalid(QStringLiteral("mtu"));
    const QJsonValue keepAlive = client.value(QLatin1String("persistent_keep_alive"));
    if (keepAlive.isString() && !inRange(keepAlive.toString(), 0, 65535))
        return invalid(QStringLiteral("persistent_keep_alive"));

    const QJsonArray ranges = client.value(QLatin1String("allowed_ips")).toArray();
    if (ranges.size() > MaxAllowedIps)
        return tooMany(QStringLiteral("allowed_ips"), MaxAllowedIps);
    for (const QJsonValue &range : ranges) {
        const QString text = range.toString();
        if (!range.isString() || (!text.isEmpty() && !NetworkText::isRange(text)))
            return invalid(QStringLiteral("allowed_ips"));
    }
    return amneziaProblem(client);
}

// Absent means off; present, it is an object of true and false.
QString killSwitchProblem(const QVariantMap &peer)
{
    const QVariant setting = peer.value(QStringLiteral("killSwitch"));
    if (!setting.isValid())
        return QString();
    const QVariantMap settings = setting.toMap();
    bool valid = setting.typeId() == QMetaType::QVariantMap;
    for (auto it = settings.cbegin(); it != settings.cend(); ++it)
        valid = valid && it.value().typeId() == QMetaType::Bool &&
                (it.key() == QLatin1String("enabled") || it.key() == QLatin1String("allowLan"));
    return valid ? QString() : invalid(QStringLiteral("killSwitch"));
}

// Absent means the default; present, true or false.
QString switchProblem(const QVariantMap &peer)
{
    for (const char *key : {"leakProtection", "appleAroundTunnel"}) {
        const QVariant setting = peer.value(QLatin1String(key));
        if (setting.isValid() && setting.typeId() != QMetaType::Bool)
            return invalid(QLatin1String(key));
    }
    return QString();
}

QString splitTunnelProblem(const QVariantMap &peer)
{
    const QVariantMap settings = peer.value(QStringLiteral("splitTunnel")).toMap();
    const int mode = settings.value(QStringLiteral("mode")).toInt();
    if (!settings.value(QStringLiteral("enabled")).toBool() || (mode != 1 && mode != 2))
        return QString(); // not in force: its entries are never used
    const QVariantList entries = settings.value(QStringLiteral("entries")).toList();
    if (entries.size() > MaxSplitTunnelEntries)
        return tooMany(QStringLiteral("splitTunnel"), MaxSplitTunnelEntries);
    for (qsizetype i = 0; i < entries.size(); ++i) {
        const QString field = QStringLiteral("splitTunnel.entries[%1]").arg(i);
        if (entries[i].typeId() != QMetaType::QVariantMap)
            return invalid(field);
        const QVariantMap entry = entries[i].toMap();
        const QString value = entry.value(QStringLiteral("value")).toString();
        const QString ip = entry.value(QStringLiteral("ip")).toString();
        if (!NetworkText::isRange(value) && !NetworkText::isHostName(value))
            return invalid(field + QStringLiteral(".value"));
        if (!ip.isEmpty() && !NetworkText::isRange(ip))
            return invalid(field + QStringLiteral(".ip"));
    }
    return QString();
}

} // namespace

QString problem(const ParsedVpnConfig &config, const QVariantMap &peer)
{
    QString found = clientProblem(config);
    for (const auto &[field, value] : {std::pair{"dns1", config.dns1}, {"dns2", config.dns2}}) {
        if (found.isEmpty() && !value.trimmed().isEmpty() && !NetworkText::isAddress(value))
            found = invalid(QLatin1String(field));
    }
    if (found.isEmpty())
        found = killSwitchProblem(peer);
    if (found.isEmpty())
        found = switchProblem(peer);
    if (found.isEmpty())
        found = splitTunnelProblem(peer);
    const QVariantMap split = peer.value(QStringLiteral("splitTunnel")).toMap();
    if (found.isEmpty() &&
        peer.value(QStringLiteral("killSwitch"))
            .toMap()
            .value(QStringLiteral("enabled"))
            .toBool() &&
        split.value(QStringLiteral("enabled")).toBool() &&
        split.value(QStringLiteral("mode")).toInt() == 1)
        found = onlySelectedBlockedMessage();
    return found;
}

QString onlySelectedBlockedMessage()
{
    return QCoreApplication::translate(
        "ConnectValidator",
        "Режим «только выбранные адреса через VPN» несовместим с блокировкой трафика вне "
        "туннеля: весь остальной трафик был бы заблокирован");
}

} // namespace ConnectValidator
