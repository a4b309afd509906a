#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QString>

#include <optional>

// One message of macOS's routing socket, in the kernel's own layout
// (net/route.h, net/if.h): a 92-byte rt_msghdr (rt_msghdr2 in a table dump,
// if_msghdr for a link's news), then the sockaddrs its address bits name, in
// bit order, each BSD-style (its length first) and rounded up to 4 bytes.
// Native byte order, as the kernel writes it on both Mac architectures.
struct RouteMessage
{
    enum Type : quint8 {
        Add = 0x1,
        Delete = 0x2,
        Change = 0x3,
        Get = 0x4,
        NewAddress = 0xc,
        DeleteAddress = 0xd,
        InterfaceInfo = 0xe,
        Get2 = 0x14,
    };
    enum Flag : int {
        Up = 0x1,
        Gateway = 0x2,
        Host = 0x4,
        Done = 0x40,
        Static = 0x800,
        WasCloned = 0x20000,
        InterfaceScoped = 0x1000000,
    };
    // The link's own flags in an InterfaceInfo message (net/if.h).
    enum LinkFlag : int { LinkUp = 0x1, LinkRunning = 0x40 };
    static constexpr int HeaderSize = 92;
    static constexpr int Version = 5;

    quint8 type = 0;
    quint16 index = 0; // the interface, by its index
    int flags = 0;
    qint32 pid = 0;
    int seq = 0;
    int error = 0;
    QHostAddress destination;
    int prefix = -1; // none: a host route, or a message without a mask
    QHostAddress gateway;
    // A link-local gateway's interface, kept by the kernel in its address's
    // bytes 2 and 3, as route(8) writes "fe80::1%en0".
    quint16 gatewayScope = 0;
    QString gatewayLink; // the interface a route goes through by name (-interface)
    quint16 gatewayLinkIndex = 0;

    bool isDefault() const;
    // Written as route(8) writes it: RTA_DST, RTA_GATEWAY, RTA_NETMASK (for a
    // network), the mask trimmed of its trailing zero bytes.
    QByteArray encode() const;
    // What a kernel message says; nothing for what no kernel would send.
    static std::optional<RouteMessage> decode(const char *data, qsizetype size);
    // Records back to back, as a table dump holds them.
    static QList<RouteMessage> decodeAll(const QByteArray &records);
};
