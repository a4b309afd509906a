#include "backend/MacHostEnvironment.h"

#include "backend/BackendConstants.h"

MacHostEnvironment::MacHostEnvironment()
    : ifconfigTool(IfconfigTool), routeTool(RouteTool), networksetupTool(NetworksetupTool),
      dscacheutilTool(DscacheutilTool), killallTool(KillallTool), runtimeDir(RuntimeDir),
      hostsFile(HostsFilePath), journalDir(JournalDir),
      lookupHost([](const QString &name) { return QHostInfo::fromName(name); })
{
}
