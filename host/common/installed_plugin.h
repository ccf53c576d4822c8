// Where the parts of an installation are, and its settings as the plug-in itself reads them.
#pragma once

#include <string>
#include <vector>

#include "base/settings.h"
#include "common/fault.h"
#include "common/server_talk.h"

namespace kesto::host {

struct InstalledPlugin {
    std::wstring folder;         // absolute, without a backslash at its end
    std::string ansi_folder;     // as the interface takes it, unless there is a fault
    std::wstring engine_folder;  // below it
    std::wstring engine;         // kestoav.exe
    std::wstring updater;        // kestoavu.exe
    std::wstring log;            // the plug-in's; empty: off
    ScannerSettings settings;
    std::vector<Endpoint> servers;
    Fault folder_fault;  // why the plug-in cannot use the folder; the settings are then the defaults
};

InstalledPlugin ReadInstalledPlugin(const std::wstring& folder);

// Whether the folder holds any part of an installation.
bool HoldsPlugin(const InstalledPlugin& installed);

// "127.0.0.1:3313"
std::string AddressText(const Endpoint& server);

bool IsFile(const std::wstring& path);

// Whether nothing is there. What this account may not see is not missing.
bool IsMissing(const std::wstring& path);

// Why this machine does not run the program: "is missing", "is not a program ...".
Fault ProgramFault(const std::wstring& path);

}  // namespace kesto::host
