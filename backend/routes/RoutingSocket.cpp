#include "backend/routes/RoutingSocket.h"

#include "backend/routes/RouteMessage.h"

#include <QDebug>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

std::atomic<qint64> messagesWritten{0};
int sequence = 0;

// route(8)'s route_strerror.
QString refusal(int error)
{
    const QString text = error == ESRCH     ? QStringLiteral("not in table")
                         : error == EBUSY   ? QStringLiteral("entry in use")
                         : error == ENOBUFS ? QStringLiteral("routing table overflow")
                                            : QString::fromLocal8Bit(std::strerror(error));
    return QStringLiteral("route: writing to routing socket: ") + text;
}

} // namespace

RoutingSocket::~RoutingSocket()
{
    if (writer >= 0)
        ::close(writer);
}

QString RoutingSocket::add(const RouteEntry &route)
{
    return write(RouteMessage::Add, route);
}

QString RoutingSocket::remove(const RouteEntry &route)
{
    return write(RouteMessage::Delete, route);
}

bool RoutingSocket::isNotInTable(const QString &failure)
{
    return failure.endsWith(QLatin1String("not in table"));
}

bool RoutingSocket::isThereAlready(const QString &failure)
{
    return failure == refusal(EEXIST);
}

// As route(8) writes it: up and static, a host without a mask, by a gateway
// address or through an interface, which the kernel finds by its index.
QString RoutingSocket::write(quint8 type, const RouteEntry &route)
{
    RouteMessage message;
    message.type = type;
    message.seq = ++sequence;
    const qsizetype slash = route.destination.indexOf(QLatin1Char('/'));
    message.destination =
        QHostAddress(slash < 0 ? route.destination : route.destination.left(slash));
    message.prefix = slash < 0 ? -1 : route.destination.mid(slash + 1).toInt();
    message.flags = RouteMessage::Up | RouteMessage::Static | (slash < 0 ? RouteMessage::Host : 0);
    if (type == RouteMessage::Add && route.throughInterface()) {
        if (indexOf(route.via) == 0)
            return refusal(ENETUNREACH);
        message.gatewayLink = route.via;
        message.gatewayLinkIndex = quint16(indexOf(route.via));
    } else if (type == RouteMessage::Add) {
        message.flags |= RouteMessage::Gateway;
        message.gateway = QHostAddress(route.via.section(QLatin1Char('%'), 0, 0));
        if (const QString scope = route.via.section(QLatin1Char('%'), 1); !scope.isEmpty())
            message.gatewayScope = quint16(indexOf(scope));
    }
    if (writer < 0)
        writer = host.openRouteWriter();
    int error = writer < 0 ? errno : host.writeRoute(writer, message.encode());
    if (error == EIO && writer >= 0) { // the socket itself failed: once more on a new one
        ::close(writer);
        writer = host.openRouteWriter();
        error = writer < 0 ? errno : host.writeRoute(writer, message.encode());
    }
    ++messagesWritten;
    return error == 0 ? QString() : refusal(error);
}

uint RoutingSocket::indexOf(const QString &interfaceName)
{
    if (!indexes.contains(interfaceName)) {
        const QHash<uint, QString> names = host.interfaces();
        for (auto it = names.cbegin(); it != names.cend(); ++it)
            indexes.insert(it.value(), it.key());
    }
    return indexes.value(interfaceName);
}

bool RoutingSocket::read(RoutingTable *table)
{
    QByteArray records;
    if (!host.dumpRoutes(&records))
        return false;
    // An index names an interface only while it lives: a utun made again
    // may get another, so the names are taken afresh with every table.
    const QHash<uint, QString> names = host.interfaces();
    indexes.clear();
    for (auto it = names.cbegin(); it != names.cend(); ++it)
        indexes.insert(it.value(), it.key());
    *table = RoutingTable::fromDump(records, names);
    return true;
}

qint64 RoutingSocket::written()
{
    return messagesWritten;
}
