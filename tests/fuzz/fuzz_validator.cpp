// The connect validator against arbitrary configurations. Whatever it lets
// through must make a set transaction of one known key per line with no
// control byte but the line feeds, and give route and ifconfig nothing but
// well-formed addresses, ranges and names, as read here independently with
// inet_pton. The input is a JSON object of changes to a valid configuration
// ("last", "hostName", "dns1", "dns2", "peer"), so that most inputs reach the
// checks that matter.
#include "ClientConfig.h"
#include "FuzzHost.h"

#include "backend/MacVpnBackend.h"
#include "config/ConnectValidator.h"

#include <QJsonDocument>

#include <arpa/inet.h>
#include <cstdint>

namespace {

bool isRange(const QString &text)
{
    const QByteArray bytes = text.toLatin1();
    const QList<QByteArray> parts = bytes.split('/');
    unsigned char address[16];
    const bool ipv6 = inet_pton(AF_INET6, parts[0].constData(), address) == 1;
    if (QString::fromLatin1(bytes) != text || parts.size() > 2 ||
        (!ipv6 && inet_pton(AF_INET, parts[0].constData(), address) != 1))
        return false;
    if (parts.size() == 1)
        return true;
    bool digits = !parts[1].isEmpty() && parts[1].size() <= 3;
    for (const char c : parts[1])
        digits = digits && c >= '0' && c <= '9';
    return digits && parts[1].toInt() <= (ipv6 ? 128 : 32);
}

// A name may end in the root's dot, as an absolute name does.
bool isName(QString text)
{
    if (text.endsWith(QLatin1Char('.')))
        text.chop(1);
    for (const QString &label : text.split(QLatin1Char('.'))) {
        bool letters = !label.isEmpty() && !label.startsWith(QLatin1Char('-'));
        for (const QChar c : label)
            letters =
                letters && c.unicode() < 128 && (c.isLetterOrNumber() || c == QLatin1Char('-'));
        if (!letters)
            return false;
    }
    return true;
}

void require(bool holds)
{
    if (!holds)
        __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static QCoreApplication &app = fuzzApplication();
    static QTemporaryDir dir;
    static MacVpnBackend backend(emptyHost(dir));
    Q_UNUSED(app);
    const QJsonDocument document =
        QJsonDocument::fromJson(QByteArray(reinterpret_cast<const char *>(data), qsizetype(size)));
    const QJsonObject changes = document.object();
    ParsedVpnConfig config = clientConfig(changes.value(QLatin1String("last")).toObject());
    for (auto [key, field] : {std::pair{"hostName", &config.hostName},
                              {"dns1", &config.dns1},
                              {"dns2", &config.dns2}}) {
        if (changes.contains(QLatin1String(key)))
            *field = changes.value(QLatin1String(key)).toString();
    }
    const QVariantMap peer = changes.value(QLatin1String("peer")).toObject().toVariantMap();
    if (!ConnectValidator::problem(config, peer).isEmpty())
        return 0;

    static const QStringList keys =
        QString("set private_key replace_peers jc jmin jmax s1 s2 s3 s4 h1 h2 h3 h4 i1 i2 i3 i4 i5 "
                "public_key preshared_key endpoint replace_allowed_ips "
                "persistent_keepalive_interval allowed_ip")
            .split(' ');
    const QString transaction = backend.uapiSetConfig(config);
    require(transaction.endsWith(QLatin1Char('\n')));
    for (const QString &line : transaction.chopped(1).split(QLatin1Char('\n'))) {
        require(keys.contains(line.section(QLatin1Char('='), 0, 0)) &&
                line.contains(QLatin1Char('=')));
        for (const QChar c : line)
            require(c.unicode() >= 0x20);
    }

    for (const QString &range : backend.allowedIps(config))
        require(isRange(range));
    const QString host = backend.endpointHost(config);
    require((isRange(host) && !host.contains(QLatin1Char('/'))) || isName(host));
    require(isRange(backend.clientIpv4(config)));
    for (const QString *dns : {&config.dns1, &config.dns2})
        require(dns->trimmed().isEmpty() || (isRange(*dns) && !dns->contains(QLatin1Char('/'))));
    const auto split = backend.splitTunnelFromPeer(peer);
    for (const QVariant &entry : split.entries) {
        const QVariantMap map = entry.toMap();
        const QString value = map.value(QStringLiteral("value")).toString();
        const QString ip = map.value(QStringLiteral("ip")).toString();
        require(!split.enabled || isRange(value) || isName(value));
        require(!split.enabled || ip.isEmpty() || isRange(ip));
    }
    return 0;
}
