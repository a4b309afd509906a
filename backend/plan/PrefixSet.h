#pragma once

#include <QStringList>

// Destinations as few routes as cover exactly the same addresses: a prefix
// inside another goes, and two halves of one block become that block.
// Country lists overlap and run in blocks, and each route left costs a
// routing message, a journal line and a firewall table entry.
namespace PrefixSet {

// Addresses and ranges of either family, in text ("203.0.113.7",
// "198.51.100.0/24"); anything else is passed through untouched. The result
// keeps the order in which each surviving block was first asked for; a
// block of one address reads as the bare address, and a range as its
// network ("10.1.2.3/8" reads "10.0.0.0/8").
QStringList merged(const QStringList &destinations);

} // namespace PrefixSet
