#include "service/AccessPolicy.h"

AccessPolicy::AccessPolicy(std::function<uid_t()> consoleOwner,
                           std::function<bool(uid_t)> isAdministrator)
    : consoleOwner(std::move(consoleOwner)), isAdministrator(std::move(isAdministrator))
{
}

bool AccessPolicy::mayCommand(uid_t caller) const
{
    return caller == 0 || caller == consoleOwner() || isAdministrator(caller);
}

bool AccessPolicy::maySeeConnection(uid_t caller, uid_t owner)
{
    return caller == 0 || caller == owner;
}
