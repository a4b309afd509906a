#include "protocol/PeerCredentials.h"

#include <sys/socket.h>
#include <unistd.h>

namespace PeerCredentials {

std::optional<uid_t> uid(qintptr socketDescriptor)
{
    if (socketDescriptor < 0)
        return std::nullopt;
#ifdef Q_OS_MACOS
    uid_t user = 0;
    gid_t group = 0;
    if (::getpeereid(int(socketDescriptor), &user, &group) != 0)
        return std::nullopt;
    return user;
#else
    struct ucred credentials = {};
    socklen_t length = sizeof credentials;
    if (::getsockopt(int(socketDescriptor), SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0)
        return std::nullopt;
    return credentials.uid;
#endif
}

} // namespace PeerCredentials
