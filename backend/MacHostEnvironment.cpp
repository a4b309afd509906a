#include "backend/MacHostEnvironment.h"

#include "backend/BackendConstants.h"
#include "backend/routes/RouteKernel.h"

#include <QFile>

#include <sys/stat.h>
#include <unistd.h>

#ifdef Q_OS_MACOS
#if __has_include(<membership.h>)
#include <membership.h>
#else
// Apple's <membership.h>, for an SDK that lacks it: the declarations as
// Apple's header makes them.
#include <uuid/uuid.h>
extern "C" {
int mbr_uid_to_uuid(uid_t id, uuid_t uu);
int mbr_group_name_to_uuid(const char *name, uuid_t uu);
int mbr_check_membership(const uuid_t user, const uuid_t group, int *ismember);
}
#endif
#else
#include <algorithm>
#include <grp.h>
#include <pwd.h>
#include <vector>
#endif

namespace {

uid_t ownerOfConsole()
{
    struct stat info = {};
    if (::stat(QFile::encodeName(ConsoleDevice).constData(), &info) != 0)
        return 0; // nobody but root then
    return info.st_uid;
}

#ifdef Q_OS_MACOS

// Directory Services answers for nested groups and for users in any number
// of groups, which the group list of getgrouplist() does not.
bool memberOfAdministrators(uid_t uid)
{
    uuid_t user = {};
    uuid_t administrators = {};
    int member = 0;
    return ::mbr_uid_to_uuid(uid, user) == 0 &&
           ::mbr_group_name_to_uuid(AdministratorsGroup.data(), administrators) == 0 &&
           ::mbr_check_membership(user, administrators, &member) == 0 && member != 0;
}

#else

bool memberOfAdministrators(uid_t uid)
{
    std::vector<char> buffer(16384);
    struct group group = {};
    struct group *found = nullptr;
    struct passwd account = {};
    struct passwd *user = nullptr;
    if (::getgrnam_r(AdministratorsGroup.data(), &group, buffer.data(), buffer.size() / 2,
                     &found) != 0 ||
        !found ||
        ::getpwuid_r(uid, &account, buffer.data() + buffer.size() / 2, buffer.size() / 2, &user) !=
            0 ||
        !user)
        return false;
    if (user->pw_gid == group.gr_gid)
        return true;
    // glibc reports how many groups there are when the list does not fit.
    std::vector<gid_t> groups(64);
    int count = int(groups.size());
    if (::getgrouplist(user->pw_name, user->pw_gid, groups.data(), &count) < 0) {
        groups.resize(size_t(count));
        if (::getgrouplist(user->pw_name, user->pw_gid, groups.data(), &count) < 0)
            return false;
    }
    groups.resize(size_t(count));
    return std::find(groups.begin(), groups.end(), group.gr_gid) != groups.end();
}

#endif

} // namespace

MacHostEnvironment::MacHostEnvironment()
    : ifconfigTool(IfconfigTool), networksetupTool(NetworksetupTool), dscacheutilTool(DscacheutilTool),
      killallTool(KillallTool), pfctlTool(PfctlTool), runtimeDir(RuntimeDir),
      upstreamSocketDir(UpstreamSocketDir), hostsFile(HostsFilePath), journalDir(JournalDir),
      lookupHost([](const QString &name) { return QHostInfo::fromName(name); }),
      consoleOwner(ownerOfConsole), isAdministrator(memberOfAdministrators)
{
    RouteKernel::attach(this);
}
