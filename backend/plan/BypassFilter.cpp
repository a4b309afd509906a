#include "backend/plan/BypassFilter.h"

namespace BypassFilter {

namespace {

bool isPrivate(const QHostAddress &address)
{
    static const QList<QPair<QHostAddress, int>> ranges = {
        QHostAddress::parseSubnet(QStringLiteral("10.0.0.0/8")),
        QHostAddress::parseSubnet(QStringLiteral("172.16.0.0/12")),
        QHostAddress::parseSubnet(QStringLiteral("192.168.0.0/16")),
        QHostAddress::parseSubnet(QStringLiteral("100.64.0.0/10")),
        QHostAddress::parseSubnet(QStringLiteral("fc00::/7")),
    };
    for (const auto &range : ranges) {
        if (address.isInSubnet(range))
            return true;
    }
    return false;
}

} // namespace

bool isLocalName(const QString &name)
{
    static const char *const suffixes[] = {".local",    ".lan",  ".home",      ".internal",
                                           ".intranet", ".corp", ".home.arpa", ".localdomain"};
    const QString lower = name.toLower().chopped(name.endsWith(QLatin1Char('.')) ? 1 : 0);
    for (const char *suffix : suffixes) {
        if (lower.endsWith(QLatin1String(suffix)))
            return true;
    }
    return false;
}

Verdict filter(const QString &name, const QList<QHostAddress> &answers,
               const QList<QHostAddress> &tunnelOwn)
{
    Verdict verdict;
    for (const QHostAddress &address : answers) {
        const QString text = address.toString();
        const char *reason = nullptr;
        if (address.isLoopback())
            reason = "loopback";
        else if (address.isLinkLocal())
            reason = "link-local";
        else if (address.isMulticast())
            reason = "multicast";
        else if (address.isBroadcast())
            reason = "broadcast";
        else if (address.isNull() || address == QHostAddress::AnyIPv4 ||
                 address == QHostAddress::AnyIPv6)
            reason = "unspecified";
        else if (tunnelOwn.contains(address))
            reason = "the tunnel's own";
        else if (isPrivate(address) && !isLocalName(name))
            reason = "private, for a name that is not local";
        else if (verdict.kept.contains(text))
            continue;
        else if (verdict.kept.size() >= MaxAddressesPerName)
            reason = "one too many";
        if (reason)
            verdict.dropped.append(text + QLatin1String(": ") + QLatin1String(reason));
        else
            verdict.kept.append(text);
    }
    return verdict;
}

} // namespace BypassFilter
