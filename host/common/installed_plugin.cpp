#include "host/common/installed_plugin.h"

#include <windows.h>

#include <algorithm>
#include <iterator>

#include "base/log.h"
#include "base/server_list.h"
#include "common/error_words.h"
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
    constexpr const wchar_t* kParts[] = {L"\\kestoav.ini", L"\\CLAMDLL.dll", L"\\plugins\\kestoav"};
    return std::any_of(std::begin(kParts), std::end(kParts),
                       [&](const wchar_t* part) { return !IsMissing(installed.folder + part); });
}

std::string AddressText(const Endpoint& server) {
    return Utf8FromAnsi(server.host) + ":" + std::to_string(server.port);
}

bool IsFile(const std::wstring& path) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

bool IsMissing(const std::wstring& path) {
    const bool there = GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
    return !there && (GetLastError() == ERROR_FILE_NOT_FOUND || GetLastError() == ERROR_PATH_NOT_FOUND);
}

Fault ProgramFault(const std::wstring& path) {
    if (IsMissing(path)) {
        return {"is missing", ERROR_FILE_NOT_FOUND};
    }
    DWORD kind = 0;
    if (!GetBinaryTypeW(path.c_str(), &kind)) {
        const DWORD code = GetLastError();
        return code == ERROR_BAD_EXE_FORMAT || code == 0
                   ? Fault{"is not a program, or is damaged", code}
                   : Fault{"cannot be read: " + SystemErrorWithCode(code), code};
    }
    SYSTEM_INFO machine;
    GetNativeSystemInfo(&machine);
    const bool runs_64_bit = machine.wProcessorArchitecture != PROCESSOR_ARCHITECTURE_INTEL;
    return kind == SCS_32BIT_BINARY || (kind == SCS_64BIT_BINARY && runs_64_bit)
               ? Fault()
               : Fault{"is a program that this machine does not run", ERROR_EXE_MACHINE_TYPE_MISMATCH};
}

}  // namespace kesto::host
