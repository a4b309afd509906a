#include "backend/routes/RouteMessage.h"

#include <QtEndian>

#include <cstring>

#ifdef Q_OS_MACOS
#include <cstddef>
#include <net/if.h>
#include <net/if_dl.h>
#include <net/route.h>
#include <netinet/in.h>
#include <sys/socket.h>
#endif

namespace {

// The layout, by offset (net/route.h rt_msghdr, net/if.h if_msghdr).
constexpr int LengthAt = 0;
constexpr int VersionAt = 2;
constexpr int TypeAt = 3;
constexpr int IndexAt = 4;
constexpr int FlagsAt = 8;
constexpr int AddressesAt = 12;
constexpr int PidAt = 16;
constexpr int SeqAt = 20;
constexpr int ErrorAt = 24;
constexpr int LinkAddressesAt = 4; // if_msghdr, ifa_msghdr
constexpr int LinkFlagsAt = 8;
constexpr int LinkIndexAt = 12;
// The address bits, in the order their sockaddrs follow the header.
constexpr int Destination = 0x1;
constexpr int GatewayBit = 0x2;
constexpr int Netmask = 0x4;
constexpr int AddressKinds = 8;
constexpr quint8 Inet = 2;
constexpr quint8 Link = 18;
constexpr quint8 Inet6 = 30;

constexpr int Inet4Size = 16;
constexpr int Inet6Size = 28;
constexpr int LinkSize = 20;

#ifdef Q_OS_MACOS
// Held to Apple's own headers wherever they are compiled.
static_assert(sizeof(rt_msghdr) == RouteMessage::HeaderSize);
static_assert(sizeof(rt_msghdr2) == RouteMessage::HeaderSize);
static_assert(offsetof(rt_msghdr, rtm_msglen) == LengthAt);
static_assert(offsetof(rt_msghdr, rtm_version) == VersionAt);
static_assert(offsetof(rt_msghdr, rtm_type) == TypeAt);
static_assert(offsetof(rt_msghdr, rtm_index) == IndexAt);
static_assert(offsetof(rt_msghdr, rtm_flags) == FlagsAt);
static_assert(offsetof(rt_msghdr, rtm_addrs) == AddressesAt);
static_assert(offsetof(rt_msghdr, rtm_pid) == PidAt);
static_assert(offsetof(rt_msghdr, rtm_seq) == SeqAt);
static_assert(offsetof(rt_msghdr, rtm_errno) == ErrorAt);
static_assert(offsetof(if_msghdr, ifm_addrs) == LinkAddressesAt);
static_assert(offsetof(if_msghdr, ifm_flags) == LinkFlagsAt);
static_assert(offsetof(if_msghdr, ifm_index) == LinkIndexAt);
static_assert(RTM_VERSION == RouteMessage::Version);
static_assert(RTM_ADD == RouteMessage::Add && RTM_DELETE == RouteMessage::Delete &&
              RTM_CHANGE == RouteMessage::Change && RTM_GET == RouteMessage::Get &&
              RTM_NEWADDR == RouteMessage::NewAddress &&
              RTM_DELADDR == RouteMessage::DeleteAddress &&
              RTM_IFINFO == RouteMessage::InterfaceInfo && RTM_GET2 == RouteMessage::Get2);
static_assert(RTF_UP == RouteMessage::Up && RTF_GATEWAY == RouteMessage::Gateway &&
              RTF_HOST == RouteMessage::Host && RTF_DONE == RouteMessage::Done &&
              RTF_STATIC == RouteMessage::Static && RTF_WASCLONED == RouteMessage::WasCloned &&
              RTF_IFSCOPE == RouteMessage::InterfaceScoped);
static_assert(RTA_DST == Destination && RTA_GATEWAY == GatewayBit && RTA_NETMASK == Netmask &&
              RTAX_MAX == AddressKinds);
static_assert(IFF_UP == RouteMessage::LinkUp && IFF_RUNNING == RouteMessage::LinkRunning);
static_assert(AF_INET == Inet && AF_LINK == Link && AF_INET6 == Inet6);
static_assert(sizeof(sockaddr_in) == Inet4Size && sizeof(sockaddr_in6) == Inet6Size &&
              sizeof(sockaddr_dl) == LinkSize);
#endif

// net/rtsock.c ROUNDUP32: to a multiple of 4, and 4 for an empty one.
int rounded(int length)
{
    return length > 0 ? (length + 3) & ~3 : 4;
}

template <typename T> T at(const char *data, int offset)
{
    T value;
    std::memcpy(&value, data + offset, sizeof value);
    return value;
}

template <typename T> void put(QByteArray *bytes, int offset, T value)
{
    std::memcpy(bytes->data() + offset, &value, sizeof value);
}

void append(QByteArray *message, QByteArray sockaddr)
{
    const int length = int(sockaddr.size());
    sockaddr.resize(rounded(length), '\0');
    message->append(sockaddr);
}

QByteArray address(const QHostAddress &host, quint16 scope = 0)
{
    const bool ipv6 = host.protocol() == QAbstractSocket::IPv6Protocol;
    QByteArray sockaddr(ipv6 ? Inet6Size : Inet4Size, '\0');
    sockaddr[0] = char(sockaddr.size());
    sockaddr[1] = char(ipv6 ? Inet6 : Inet);
    if (ipv6) {
        const Q_IPV6ADDR bytes = host.toIPv6Address();
        std::memcpy(sockaddr.data() + 8, bytes.c, 16);
        if (scope != 0)
            qToBigEndian(scope, sockaddr.data() + 10);
    } else {
        qToBigEndian(host.toIPv4Address(), sockaddr.data() + 4);
    }
    return sockaddr;
}

// route(8)'s mask_addr: the trailing zero bytes dropped, the family kept.
QByteArray mask(bool ipv6, int prefix)
{
    QByteArray sockaddr(ipv6 ? Inet6Size : Inet4Size, '\0');
    sockaddr[1] = char(ipv6 ? Inet6 : Inet);
    const int start = ipv6 ? 8 : 4;
    for (int bit = 0; bit < prefix; ++bit)
        sockaddr[start + bit / 8] = char(sockaddr[start + bit / 8] | char(0x80 >> (bit % 8)));
    int length = int(sockaddr.size());
    while (length > 2 && sockaddr[length - 1] == '\0')
        --length;
    sockaddr.resize(length);
    sockaddr[0] = char(length);
    return sockaddr;
}

QByteArray link(const QString &name, quint16 index)
{
    const QByteArray text = name.toLatin1();
    QByteArray sockaddr(qMax(LinkSize, rounded(8 + int(text.size()))), '\0');
    sockaddr[0] = char(sockaddr.size());
    sockaddr[1] = char(Link);
    put<quint16>(&sockaddr, 2, index);
    sockaddr[5] = char(text.size());
    std::memcpy(sockaddr.data() + 8, text.constData(), size_t(text.size()));
    return sockaddr;
}

QHostAddress addressIn(const char *sockaddr, int length, quint8 family, quint16 *scope = nullptr)
{
    if (family == Inet6 && length >= 24) {
        quint8 bytes[16];
        std::memcpy(bytes, sockaddr + 8, 16);
        if (bytes[0] == 0xfe && (bytes[1] & 0xc0) == 0x80 && scope) {
            *scope = qFromBigEndian<quint16>(bytes + 2);
            bytes[2] = bytes[3] = 0;
        }
        return QHostAddress(bytes);
    }
    if (family == Inet && length >= 8)
        return QHostAddress(qFromBigEndian<quint32>(sockaddr + 4));
    return QHostAddress();
}

// The leading one bits of what the mask's length leaves of it.
int prefixIn(const char *sockaddr, int length, bool ipv6)
{
    const int start = ipv6 ? 8 : 4;
    const int end = qMin(length, start + (ipv6 ? 16 : 4));
    int prefix = 0;
    for (int at = start; at < end; ++at) {
        const auto byte = quint8(sockaddr[at]);
        for (int bit = 7; bit >= 0 && (byte >> bit & 1); --bit)
            ++prefix;
        if (byte != 0xff)
            break;
    }
    return prefix;
}

} // namespace

bool RouteMessage::isDefault() const
{
    return (destination == QHostAddress::AnyIPv4 || destination == QHostAddress::AnyIPv6) &&
           prefix <= 0;
}

QByteArray RouteMessage::encode() const
{
    QByteArray message(HeaderSize, '\0');
    int addresses = Destination;
    append(&message, address(destination));
    if (!gatewayLink.isEmpty() || !gateway.isNull()) {
        addresses |= GatewayBit;
        append(&message, gatewayLink.isEmpty() ? address(gateway, gatewayScope)
                                               : link(gatewayLink, gatewayLinkIndex));
    }
    if (prefix >= 0) {
        addresses |= Netmask;
        append(&message, mask(destination.protocol() == QAbstractSocket::IPv6Protocol, prefix));
    }
    put<quint16>(&message, LengthAt, quint16(message.size()));
    message[VersionAt] = char(Version);
    message[TypeAt] = char(type);
    put<quint16>(&message, IndexAt, index);
    put<int>(&message, FlagsAt, flags);
    put<int>(&message, AddressesAt, addresses);
    put<qint32>(&message, PidAt, pid);
    put<int>(&message, SeqAt, seq);
    put<int>(&message, ErrorAt, error);
    return message;
}

std::optional<RouteMessage> RouteMessage::decode(const char *data, qsizetype size)
{
    if (size < 4 || at<quint16>(data, LengthAt) != size || data[VersionAt] != Version)
        return std::nullopt;
    RouteMessage message;
    message.type = quint8(data[TypeAt]);
    if (message.type == InterfaceInfo || message.type == NewAddress ||
        message.type == DeleteAddress) {
        if (size < 16)
            return std::nullopt;
        message.flags = at<int>(data, LinkFlagsAt);
        message.index = at<quint16>(data, LinkIndexAt);
        Q_UNUSED(LinkAddressesAt)
        return message;
    }
    if (size < HeaderSize)
        return std::nullopt;
    message.index = at<quint16>(data, IndexAt);
    message.flags = at<int>(data, FlagsAt);
    message.pid = at<qint32>(data, PidAt);
    message.seq = at<int>(data, SeqAt);
    message.error = at<int>(data, ErrorAt);
    const int addresses = at<int>(data, AddressesAt);
    quint8 family = 0;
    int offset = HeaderSize;
    for (int bit = 0; bit < AddressKinds && offset < size; ++bit) {
        if (!(addresses & (1 << bit)))
            continue;
        const char *sockaddr = data + offset;
        const int length = quint8(sockaddr[0]);
        if (offset + qMax(length, 2) > size)
            return std::nullopt;
        const auto kind = quint8(length > 1 ? sockaddr[1] : 0);
        if (1 << bit == Destination) {
            family = kind;
            message.destination = addressIn(sockaddr, length, family);
        } else if (1 << bit == GatewayBit && kind == Link && length >= 8) {
            message.gatewayLinkIndex = at<quint16>(sockaddr, 2);
            message.gatewayLink = QString::fromLatin1(sockaddr + 8, quint8(sockaddr[5]));
        } else if (1 << bit == GatewayBit) {
            message.gateway = addressIn(sockaddr, length, kind, &message.gatewayScope);
        } else if (1 << bit == Netmask) {
            // Its family is the destination's: the kernel's masks carry none.
            message.prefix = length == 0 ? 0 : prefixIn(sockaddr, length, family == Inet6);
        }
        offset += rounded(length);
    }
    return message;
}

QList<RouteMessage> RouteMessage::decodeAll(const QByteArray &records)
{
    QList<RouteMessage> messages;
    for (qsizetype offset = 0; offset + 4 <= records.size();) {
        const quint16 length = at<quint16>(records.constData(), int(offset));
        if (length < 4 || offset + length > records.size())
            break;
        if (const auto message = decode(records.constData() + offset, length))
            messages.append(*message);
        offset += length;
    }
    return messages;
}
