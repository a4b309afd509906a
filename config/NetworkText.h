#pragma once

#include <QString>

// Classifies the network values that arrive as text: addresses, ranges and
// host names.
namespace NetworkText {

// An address of that family with an optional prefix length in range;
// surrounding blanks are allowed.
bool isIpv4Route(const QString &text);
bool isIpv6Route(const QString &text);

// Exactly an IPv4 or IPv6 address, nothing around it.
bool isAddress(const QString &text);

// A fully qualified DNS name: dot-separated labels of letters, digits and
// inner hyphens, the last of which is not a number. Nothing a tool could take
// for an option or a keyword ("-alias", "default") qualifies.
bool isHostName(const QString &text);

} // namespace NetworkText
