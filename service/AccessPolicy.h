#pragma once

#include <functional>
#include <sys/types.h>

// Who may do what over the service socket, which every local account can
// reach. Anyone may ask for the status; only root, the user at the console
// and administrators may bring the tunnel up or down; and the settings of a
// connection, whose connection string carries its private key, go back only
// to root and to the user who made it.
class AccessPolicy
{
public:
    AccessPolicy(std::function<uid_t()> consoleOwner, std::function<bool(uid_t)> isAdministrator);

    bool mayCommand(uid_t caller) const;
    static bool maySeeConnection(uid_t caller, uid_t owner);

private:
    std::function<uid_t()> consoleOwner;
    std::function<bool(uid_t)> isAdministrator;
};
