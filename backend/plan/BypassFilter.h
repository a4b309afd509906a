#pragma once

#include <QHostAddress>
#include <QList>
#include <QString>
#include <QStringList>

// Which of the addresses the network's own resolver gave for a name may be
// routed around the tunnel. That resolver belongs to whatever network the Mac
// is on, a captive portal or a hostile one among them: answering with the
// tunnel's DNS servers would send all the Mac's DNS around the tunnel, and an
// intranet address would divert traffic meant for it. So never the tunnel's
// own addresses or DNS servers, loopback, link-local, multicast, broadcast or
// the unspecified address; a private address only for a name that is itself
// local; and a few at most.
namespace BypassFilter {

constexpr int MaxAddressesPerName = 8;

struct Verdict
{
    QStringList kept;
    QStringList dropped; // "address: reason"
};

Verdict filter(const QString &name, const QList<QHostAddress> &answers,
               const QList<QHostAddress> &tunnelOwn);

// A name under a suffix reserved or commonly used for local networks.
bool isLocalName(const QString &name);

} // namespace BypassFilter
