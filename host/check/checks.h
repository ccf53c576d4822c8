// What is looked at. Each check is in a file of its name, such as check_log.cpp, and changes nothing.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "common/processes.h"
#include "common/server_talk.h"
#include "host/check/findings.h"
#include "host/check/installed_bridge.h"
#include "host/common/installed_plugin.h"
#include "host/common/port_owner.h"

namespace kesto::host {

void CheckLibrary(Findings& findings, const std::wstring& path);
void CheckFolder(Findings& findings, const InstalledPlugin& installed);
void CheckSettings(Findings& findings, const InstalledPlugin& installed);

// The plug-in's log.
void CheckLog(Findings& findings, const InstalledPlugin& installed);

// Whether this account can append to a log file at this path. Leaves no file behind.
void CheckLogFile(Findings& findings, const char* check, const std::wstring& path);

// kestoav.exe, as a program and as a process.
void CheckEngineProgram(Findings& findings, const InstalledPlugin& installed);
void CheckEngineProcess(Findings& findings, const InstalledPlugin& installed, const InstalledBridge& bridge);

// What is to be told of the processes called kestoav.exe, the owner of the bridge's port, and the account of
// the first process, which is empty when Windows does not tell.
void TellEngineProcess(Findings& findings, const InstalledPlugin& installed, const InstalledBridge& bridge,
                       const std::vector<ProgramProcess>& engines, const std::optional<PortOwner>& owner,
                       const std::string& account);

// Whether users may write where only administrators should, since the mail server runs what lies there.
void CheckRights(Findings& findings, const InstalledPlugin& installed);

// Which of the groups that any user may be in has the right to change a file or folder with this security
// descriptor, or what is in the folder: "Users"; empty when none has.
std::string WhoMayWrite(void* descriptor);

// bridge.ini and the bridge's log.
void CheckBridge(Findings& findings, const InstalledPlugin& installed, const InstalledBridge& bridge);

// The engine's two programs, if they are ours: kestoav.exe, the guard, and kestobridge.exe, its worker. Finds
// nothing when another program is in the guard's place.
void CheckGuard(Findings& findings, const InstalledPlugin& installed, const InstalledBridge& bridge);

// The plug-in's servers and the bridge's, and whether the plug-in leads to the bridge.
void CheckServers(Findings& findings, const InstalledPlugin& installed, const InstalledBridge& bridge,
                  Deadline deadline);

void CheckUpdater(Findings& findings, const InstalledPlugin& installed, const InstalledBridge& bridge);

}  // namespace kesto::host
