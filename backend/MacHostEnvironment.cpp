#include "backend/MacHostEnvironment.h"

#include "backend/BackendConstants.h"

#include <QFile>

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

uid_t ownerOfConsole()
{
    struct stat info = {};
    if (::stat(QFile::encodeName(ConsoleDevice).constData(), &info) != 0)
        return 0; // nobody but root then
    return info.st_uid;
}

bool memberOfAdministrators(uid_t uid)
{
    std::vector<char> buffer(16384);
    struct group group = {};
    struct group *found = nullptr;
    if (::getgrnam_r(AdministratorsGroup.data(), &group, buffer.data(), buffer.size(), &found) !=
            0 ||
        !found)
        return false;
    const gid_t administrators = group.gr_gid;
    struct passwd account = {};
    struct passwd *user = nullptr;
    if (::getpwuid_r(uid, &account, buffer.data(), buffer.size(), &user) != 0 || !user)
        return false;
    if (user->pw_gid == administrators)
        return true;
    std::vector<gid_t> groups(64);
    int count = int(groups.size());
#ifdef Q_OS_MACOS
    using GroupId = int;
#else
    using GroupId = gid_t;
#endif
    if (::getgrouplist(user->pw_name, GroupId(user->pw_gid),
                       reinterpret_cast<GroupId *>(groups.data()), &count) < 0) {
        groups.resize(size_t(count));
        if (::getgrouplist(user->pw_name, GroupId(user->pw_gid),
                           reinterpret_cast<GroupId *>(groups.data()), &count) < 0)
            return false;
    }
    groups.resize(size_t(count));
    for (const gid_t gid : groups) {
        if (gid == administrators)
            return true;
    }
    return false;
}

} // namespace

MacHostEnvironment::MacHostEnvironment()
    : ifconfigTool(IfconfigTool), routeTool(RouteTool), networksetupTool(NetworksetupTool),
      dscacheutilTool(DscacheutilTool), killallTool(KillallTool), runtimeDir(RuntimeDir),
      hostsFile(HostsFilePath), journalDir(JournalDir),
      lookupHost([](const QString &name) { return QHostInfo::fromName(name); }),
      consoleOwner(ownerOfConsole), isAdministrator(memberOfAdministrators)
{
}
