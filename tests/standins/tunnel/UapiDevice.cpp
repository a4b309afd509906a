#include "UapiDevice.h"

#include <QHostAddress>
#include <QRegularExpression>

namespace {

constexpr int EINVAL_ = 22;
constexpr int EPROTO_ = 71;

bool isHexKey(const QString &value)
{
    static const QRegularExpression hex(QStringLiteral("^[0-9a-f]{64}$"));
    return hex.match(value).hasMatch();
}

bool inRange(const QString &value, qint64 low, qint64 high, qint64 *out = nullptr)
{
    bool ok = false;
    const qint64 number = value.toLongLong(&ok, 10);
    if (out)
        *out = number;
    return ok && number >= low && number <= high;
}

// AmneziaWG's magic headers are 32-bit values or ranges "low-high".
bool isHeader(const QString &value)
{
    const QStringList parts = value.split(QLatin1Char('-'));
    qint64 low = 0;
    qint64 high = 0;
    if (parts.size() == 1)
        return inRange(parts[0], 0, 0xffffffffLL);
    return parts.size() == 2 && inRange(parts[0], 0, 0xffffffffLL, &low) &&
           inRange(parts[1], 0, 0xffffffffLL, &high) && low <= high;
}

bool isEndpoint(const QString &value)
{
    const int colon = value.lastIndexOf(QLatin1Char(':'));
    if (colon <= 0 || !inRange(value.mid(colon + 1), 1, 65535))
        return false;
    QString host = value.left(colon);
    if (host.startsWith(QLatin1Char('[')) && host.endsWith(QLatin1Char(']')))
        return QHostAddress(host.mid(1, host.size() - 2)).protocol() ==
               QAbstractSocket::IPv6Protocol;
    return QHostAddress(host).protocol() == QAbstractSocket::IPv4Protocol;
}

bool isAllowedIp(const QString &value)
{
    const auto subnet = QHostAddress::parseSubnet(value);
    return !subnet.first.isNull() && value.contains(QLatin1Char('/'));
}

bool validAmneziaKey(const QString &key, const QString &value)
{
    if (key == QLatin1String("jc"))
        return inRange(value, 0, 128);
    if (key == QLatin1String("jmin") || key == QLatin1String("jmax"))
        return inRange(value, 0, 1280);
    if (key.size() == 2 && key[0] == QLatin1Char('s') && key[1] >= QLatin1Char('1') &&
        key[1] <= QLatin1Char('4'))
        return inRange(value, 0, 1132);
    if (key.size() == 2 && key[0] == QLatin1Char('h') && key[1] >= QLatin1Char('1') &&
        key[1] <= QLatin1Char('4'))
        return isHeader(value);
    if (key.size() == 2 && key[0] == QLatin1Char('i') && key[1] >= QLatin1Char('1') &&
        key[1] <= QLatin1Char('5'))
        return !value.isEmpty();
    return false;
}

} // namespace

int UapiDevice::handle(const QString &request, QString *listing)
{
    QStringList lines = request.split(QLatin1Char('\n'));
    while (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    if (lines.isEmpty())
        return -EPROTO_;
    const QString operation = lines.takeFirst();
    if (operation == QLatin1String("get=1")) {
        if (!lines.isEmpty())
            return -EPROTO_;
        *listing = get();
        return 0;
    }
    if (operation == QLatin1String("set=1"))
        return set(lines);
    return -EPROTO_;
}

int UapiDevice::set(const QStringList &lines)
{
    UapiDevice next = *this;
    Peer *peer = nullptr;
    for (const QString &line : lines) {
        const int equals = line.indexOf(QLatin1Char('='));
        if (equals <= 0)
            return -EPROTO_;
        const QString key = line.left(equals);
        const QString value = line.mid(equals + 1);
        if (key == QLatin1String("public_key")) {
            if (!isHexKey(value))
                return -EINVAL_;
            next.peers.append(Peer{value, QString(), QString(), 0, {}});
            peer = &next.peers.last();
            continue;
        }
        if (!peer) {
            if (key == QLatin1String("private_key")) {
                if (!isHexKey(value))
                    return -EINVAL_;
                next.privateKey = value;
            } else if (key == QLatin1String("listen_port")) {
                qint64 port = 0;
                if (!inRange(value, 0, 65535, &port))
                    return -EINVAL_;
                next.listenPort = int(port);
            } else if (key == QLatin1String("replace_peers")) {
                if (value != QLatin1String("true"))
                    return -EINVAL_;
                next.peers.clear();
            } else if (key == QLatin1String("fwmark")) {
                if (!inRange(value, 0, 0xffffffffLL))
                    return -EINVAL_;
            } else if (validAmneziaKey(key, value)) {
                next.amneziaKeys.append({key, value});
            } else {
                return -EINVAL_;
            }
            continue;
        }
        if (key == QLatin1String("preshared_key")) {
            if (!isHexKey(value))
                return -EINVAL_;
            peer->presharedKey = value;
        } else if (key == QLatin1String("endpoint")) {
            if (!isEndpoint(value))
                return -EINVAL_;
            peer->endpoint = value;
        } else if (key == QLatin1String("replace_allowed_ips")) {
            if (value != QLatin1String("true"))
                return -EINVAL_;
            peer->allowedIps.clear();
        } else if (key == QLatin1String("persistent_keepalive_interval")) {
            qint64 seconds = 0;
            if (!inRange(value, 0, 65535, &seconds))
                return -EINVAL_;
            peer->keepAlive = int(seconds);
        } else if (key == QLatin1String("allowed_ip")) {
            if (!isAllowedIp(value))
                return -EINVAL_;
            peer->allowedIps.append(value);
        } else if (key == QLatin1String("protocol_version")) {
            if (value != QLatin1String("1"))
                return -EINVAL_;
        } else {
            return -EINVAL_;
        }
    }
    qint64 jmin = 0;
    qint64 jmax = 1280;
    for (const auto &entry : std::as_const(next.amneziaKeys)) {
        if (entry.first == QLatin1String("jmin"))
            jmin = entry.second.toLongLong();
        if (entry.first == QLatin1String("jmax"))
            jmax = entry.second.toLongLong();
    }
    if (jmin > jmax)
        return -EINVAL_;
    *this = next;
    return 0;
}

QString UapiDevice::get() const
{
    QString text;
    if (!privateKey.isEmpty())
        text += QStringLiteral("private_key=%1\n").arg(privateKey);
    text += QStringLiteral("listen_port=%1\n").arg(listenPort);
    for (const auto &entry : amneziaKeys)
        text += entry.first + QLatin1Char('=') + entry.second + QLatin1Char('\n');
    for (const Peer &p : peers) {
        text += QStringLiteral("public_key=%1\n").arg(p.publicKey);
        text += QStringLiteral("preshared_key=%1\n")
                    .arg(p.presharedKey.isEmpty() ? QString(64, QLatin1Char('0')) : p.presharedKey);
        text += QStringLiteral("protocol_version=1\n");
        if (!p.endpoint.isEmpty())
            text += QStringLiteral("endpoint=%1\n").arg(p.endpoint);
        text += QStringLiteral(
            "last_handshake_time_sec=0\nlast_handshake_time_nsec=0\ntx_bytes=0\nrx_bytes=0\n");
        text += QStringLiteral("persistent_keepalive_interval=%1\n").arg(p.keepAlive);
        for (const QString &range : p.allowedIps)
            text += QStringLiteral("allowed_ip=%1\n").arg(range);
    }
    return text;
}
