#include "backend/host/FirewallRules.h"

namespace FirewallRules {

namespace {

// Private, link-local and multicast ranges of both families.
constexpr const char *LocalNetworks[] = {"10.0.0.0/8",     "172.16.0.0/12", "192.168.0.0/16",
                                         "169.254.0.0/16", "224.0.0.0/4",   "fe80::/10",
                                         "ff00::/8"};

} // namespace

// First match wins ("quick"), so the final rule drops whatever nothing above let through.
QByteArray text(const Allowed &allowed)
{
    QStringList rules = {QStringLiteral("pass quick on lo0 all")};
    if (!allowed.tunnelInterface.isEmpty())
        rules.append(QStringLiteral("pass quick on %1 all").arg(allowed.tunnelInterface));
    rules.append(QStringLiteral("pass out quick proto udp from any to %1 port %2 keep state")
                     .arg(allowed.endpoint)
                     .arg(allowed.port));
    rules.append(QStringLiteral("pass quick inet proto udp from any port 68 to any port 67"));
    rules.append(QStringLiteral("pass quick inet proto udp from any port 67 to any port 68"));
    rules.append(QStringLiteral("pass quick inet6 proto icmp6 icmp6-type { 133, 134, 135, 136 }"));
    for (const QString &destination : allowed.around)
        rules.append(QStringLiteral("pass out quick to %1 keep state").arg(destination));
    for (const char *network : LocalNetworks) {
        if (allowed.localNetworks)
            rules << QStringLiteral("pass quick to %1").arg(QLatin1String(network))
                  << QStringLiteral("pass quick from %1").arg(QLatin1String(network));
    }
    rules.append(QStringLiteral("block drop quick all"));
    return rules.join(QLatin1Char('\n')).toUtf8() + '\n';
}

} // namespace FirewallRules
