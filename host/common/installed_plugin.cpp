#include "host/common/installed_plugin.h"

#include <windows.h>

#include <algorithm>
#include <iterator>

#include "base/log.h"
#include "base/server_list.h"
#include "common/error_words.h"
#include "common/folder_limit.h"
#include "common/text.h"

namespace kesto::host {
namespace {

// The folder as the interface takes it: in the ANSI code page, with short names where long names have other
// letters, and short enough for the programs that the plug-in starts from there.
Fault AnsiFolder(const std::wstring& folder, std::string& ansi) {
    // A letter that is only replaced by a similar one names another folder.
    const auto convert = [&](const std::wstring& path) {
        ansi = AnsiFromWide(path);
        return WideFromAnsi(ansi) == path;
    };
    wchar_t short_path[MAX_PATH];
    const DWORD length = GetShortPathNameW(folder.c_str(), short_path, MAX_PATH);
    if (!convert(folder) && !(length > 0 && length < MAX_PATH && convert(short_path))) {
        return {"the folder " + Utf8FromWide(folder) +
                " has letters that this system's code page lacks, and no short name without them"};
    }
    if (ansi.size() > kLongestPluginFolder) {
        return {"the folder's path may have at most " + std::to_string(kLongestPluginFolder) +
                " characters, and has " + std::to_string(ansi.size()) +
                ": Windows starts no program by a path above 259, as is that of " + Utf8FromWide(folder) +
                "\\plugins\\kestoav\\kestobridge.exe"};
    }
    return {};
}

}  // namespace

InstalledPlugin ReadInstalledPlugin(const std::wstring& folder) {
    InstalledPlugin installed;
    installed.folder = folder;
    installed.engine_folder = folder + L"\\plugins\\kestoav";
    installed.engine = installed.engine_folder + L"\\kestoav.exe";
    installed.updater = installed.engine_folder + L"\\kestoavu.exe";
    installed.folder_fault = AnsiFolder(folder, installed.ansi_folder);
    if (!installed.folder_fault) {
        const char* const ansi_folder = installed.ansi_folder.c_str();
        ReadSettings(ansi_folder, installed.settings);
        char log_path[kPathSize];
        if (FindLogPath(ansi_folder, installed.settings.logfile, log_path)) {
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
