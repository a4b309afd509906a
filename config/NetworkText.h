#pragma once

#include <QString>

// Classifies the network values that arrive as text: addresses, ranges and
// host names. One grammar for all of them: an IPv4 address is a dotted quad,
// an IPv6 address hexadecimal groups and colons (perhaps ending in a dotted
// quad) with no scope, a range an address, one slash and a prefix length in
// range, a host name labels of letters, digits and hyphens. What a value
// holds beyond that (a second slash, a line feed, a NUL) makes it no value.
namespace NetworkText {

// An address of that family with an optional prefix length in range;
// surrounding blanks are allowed, as the classifiers of routes allow them.
bool isIpv4Route(const QString &text);
bool isIpv6Route(const QString &text);

// Exactly an address or range of either family, nothing around it.
bool isRange(const QString &text);

// Exactly an IPv4 or IPv6 address, nothing around it.
bool isAddress(const QString &text);

// A fully qualified DNS name: dot-separated labels of letters, digits and
// inner hyphens, the last of which is not a number. Nothing a tool could take
// for an option or a keyword ("-alias", "default") qualifies.
bool isHostName(const QString &text);

} // namespace NetworkText
