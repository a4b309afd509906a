#pragma once

#include <QtGlobal>

#include <optional>
#include <sys/types.h>

// The user on the other end of a local socket, as the kernel knows it: a
// client cannot claim to be someone else, and neither can a service.
namespace PeerCredentials {

std::optional<uid_t> uid(qintptr socketDescriptor);

} // namespace PeerCredentials
