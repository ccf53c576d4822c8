#include "host/common/installed_plugin.h"

#include <windows.h>

#include "base/log.h"
#include "base/server_list.h"
#include "common/text.h"
#include "host/common/plugin_library.h"

namespace kesto::host {

InstalledPlugin ReadInstalledPlugin(const std::wstring& folder) {
    InstalledPlugin installed;
    installed.folder = folder;
    installed.engine_folder = folder + L"\\plugins\\kestoav";
    installed.engine = installed.engine_folder + L"\\kestoav.exe";
    installed.updater = installed.engine_folder + L"\\kestoavu.exe";
    std::string ansi_folder;
    installed.folder_fault = AnsiFolder(folder, ansi_folder);
    if (!installed.folder_fault) {
        ReadSettings(ansi_folder.c_str(), installed.settings);
        char log_path[kPathSize];
        if (FindLogPath(ansi_folder.c_str(), installed.settings.logfile, log_path)) {
            installed.log = WideFromAnsi(log_path);
        }
    }
    ServerList servers;
    servers.Append(installed.settings.servers);
    for (const ServerEntry& server : servers) {
        installed.servers.push_back({server.host, server.port});
    }
    return installed;
}

bool HoldsPlugin(const InstalledPlugin& installed) {
    for (const wchar_t* name : {L"\\kestoav.ini", L"\\CLAMDLL.dll", L"\\plugins\\kestoav"}) {
        if (GetFileAttributesW((installed.folder + name).c_str()) != INVALID_FILE_ATTRIBUTES) {
            return true;
        }
    }
    return false;
}

std::string AddressText(const Endpoint& server) {
    return Utf8FromAnsi(server.host) + ":" + std::to_string(server.port);
}

bool IsFile(const std::wstring& path) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

}  // namespace kesto::host
