#include "backend/plan/PrefixSet.h"

#include <QHash>
#include <QHostAddress>

#include <algorithm>
#include <optional>
#include <tuple>
#include <vector>

namespace {

using Bits = unsigned __int128;

struct Prefix
{
    bool v6 = false;
    Bits network = 0; // left-aligned in 128 bits, whatever the family
    int length = 0;

    int width() const { return v6 ? 128 : 32; }
    // Left-aligned, both families' blocks measure alike; the whole space
    // (length 0) has no size that fits.
    Bits size() const { return length == 0 ? 0 : Bits(1) << (128 - length); }
    Bits mask() const { return length == 0 ? 0 : ~Bits(0) << (128 - length); }
    bool covers(const Prefix &other) const
    {
        return v6 == other.v6 && length <= other.length && (other.network & mask()) == network;
    }
    auto key() const { return std::tie(v6, network, length); }
    bool operator<(const Prefix &other) const { return key() < other.key(); }
};

std::optional<Prefix> parse(const QString &text)
{
    const QPair<QHostAddress, int> subnet = text.contains(QLatin1Char('/'))
                                                ? QHostAddress::parseSubnet(text)
                                                : QPair<QHostAddress, int>{QHostAddress(text), -1};
    const QHostAddress &address = subnet.first;
    Prefix prefix;
    if (address.protocol() == QAbstractSocket::IPv4Protocol && address.scopeId().isEmpty()) {
        prefix.network = Bits(address.toIPv4Address()) << 96;
    } else if (address.protocol() == QAbstractSocket::IPv6Protocol && address.scopeId().isEmpty()) {
        prefix.v6 = true;
        const Q_IPV6ADDR bytes = address.toIPv6Address();
        for (int i = 0; i < 16; ++i)
            prefix.network = (prefix.network << 8) | bytes[i];
    } else {
        return std::nullopt;
    }
    prefix.length = subnet.second < 0 ? prefix.width() : subnet.second;
    if (prefix.length < 0 || prefix.length > prefix.width())
        return std::nullopt;
    prefix.network &= prefix.mask();
    return prefix;
}

QString text(const Prefix &prefix)
{
    QHostAddress address;
    if (prefix.v6) {
        Q_IPV6ADDR bytes;
        for (int i = 0; i < 16; ++i)
            bytes[i] = quint8(prefix.network >> (8 * (15 - i)));
        address.setAddress(bytes);
    } else {
        address.setAddress(quint32(prefix.network >> 96));
    }
    return prefix.length == prefix.width()
               ? address.toString()
               : address.toString() + QLatin1Char('/') + QString::number(prefix.length);
}

// Sorted, with what another covers dropped and sibling halves joined.
std::vector<Prefix> minimal(std::vector<Prefix> prefixes)
{
    std::sort(prefixes.begin(), prefixes.end());
    std::vector<Prefix> kept;
    for (const Prefix &prefix : prefixes) {
        if (!kept.empty() && kept.back().covers(prefix))
            continue;
        kept.push_back(prefix);
        while (kept.size() >= 2) {
            const Prefix &right = kept.back();
            const Prefix &left = kept[kept.size() - 2];
            if (left.v6 != right.v6 || left.length != right.length || left.length == 0 ||
                (left.network & left.size()) != 0 || right.network != left.network + left.size())
                break;
            Prefix joined = left;
            --joined.length;
            kept.pop_back();
            kept.back() = joined;
        }
    }
    return kept;
}

} // namespace

namespace PrefixSet {

QStringList merged(const QStringList &destinations)
{
    std::vector<Prefix> prefixes;
    prefixes.reserve(size_t(destinations.size()));
    for (const QString &destination : destinations) {
        if (const std::optional<Prefix> prefix = parse(destination))
            prefixes.push_back(*prefix);
    }
    const std::vector<Prefix> blocks = minimal(prefixes);

    // Each destination in its first-asked order stands for the block that
    // holds it; a block is written once.
    QStringList result;
    std::vector<bool> written(blocks.size(), false);
    for (const QString &destination : destinations) {
        const std::optional<Prefix> prefix = parse(destination);
        if (!prefix) {
            if (!result.contains(destination))
                result.append(destination);
            continue;
        }
        auto at = std::upper_bound(blocks.begin(), blocks.end(), *prefix);
        if (at != blocks.begin())
            --at;
        const size_t index = size_t(at - blocks.begin());
        if (!written[index]) {
            written[index] = true;
            result.append(text(*at));
        }
    }
    return result;
}

} // namespace PrefixSet
