// Questions and orders of the set-up program, which runs this program from a temporary folder. The exit code
// is the answer: 0 is yes, 1 is no, with the reason on standard output.
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "common/bridge_ini.h"
#include "common/error_words.h"
#include "common/folder_limit.h"
#include "common/our_version.h"
#include "common/owned_handle.h"
#include "common/processes.h"
#include "common/program_folder.h"
#include "common/text.h"

namespace kesto::setup {
namespace {

constexpr wchar_t kEngineFolder[] = L"\\plugins\\kestoav";  // below the plug-in's

bool No(const std::string& reason) {
    std::fputs(AnsiFromWide(WideFromUtf8(reason)).c_str(), stdout);
    return false;
}

bool FolderIsGood(const std::wstring& folder) {
    if (folder.size() < 4 || folder.compare(1, 2, L":\\") != 0) {
        return No("this is not the full path of a folder");
    }
    return folder.size() <= kLongestPluginFolder ||
           No("this path has " + std::to_string(folder.size()) + " characters; with more than " +
              std::to_string(kLongestPluginFolder) +
              " Windows cannot start plugins\\kestoav\\kestobridge.exe below it");
}

// Whether the bridge can follow the bridge.ini in this folder.
bool SettingsAreGood(const std::wstring& folder) {
    const BridgeIni ini = ReadBridgeIni(folder);
    for (const std::string& problem : ini.problems) {
        std::puts(problem.c_str());
    }
    return ini.problems.empty();
}

bool AccountExists(const std::wstring& name) {
    BYTE sid[SECURITY_MAX_SID_SIZE];
    wchar_t domain[256];
    DWORD sid_size = sizeof sid;
    DWORD domain_size = 256;
    SID_NAME_USE use;
    return LookupAccountNameW(nullptr, name.c_str(), sid, &sid_size, domain, &domain_size, &use) != FALSE ||
           No("Windows knows no account of this name");
}

// A list that the set-up program has left beside this program: paths below the plug-in's folder.
std::vector<std::wstring> List(const wchar_t* name) {
    std::vector<std::wstring> paths;
    std::ifstream list((ProgramFolder() + name).c_str());
    for (std::string path; std::getline(list, path);) {
        paths.push_back(WideFromUtf8(path));
    }
    return paths;
}

// Whether nothing but KESTO AV's own lies in the folder, which exists. A link is never its own, since it
// leads elsewhere.
bool HoldsOnlyOwn(const std::wstring& folder) {
    const std::vector<std::wstring> own = List(L"\\own.txt");
    if (GetFileAttributesW(folder.c_str()) & FILE_ATTRIBUTE_REPARSE_POINT) {
        return No(Utf8FromWide(folder) + " leads to another folder");
    }
    // What nobody may look into yet is looked at again when the rights are set.
    auto entry = std::filesystem::recursive_directory_iterator(
        folder, std::filesystem::directory_options::skip_permission_denied);
    for (; entry != std::filesystem::end(entry); ++entry) {
        const std::wstring path = entry->path().wstring().substr(folder.size() + 1);
        const bool known = std::any_of(own.begin(), own.end(), [&](const std::wstring& name) {
            return _wcsicmp(name.c_str(), path.c_str()) == 0;
        });
        if (!known || GetFileAttributesW(entry->path().c_str()) & FILE_ATTRIBUTE_REPARSE_POINT) {
            return No(Utf8FromWide(entry->path().wstring()) + " does not belong to KESTO AV");
        }
        if (_wcsicmp(path.c_str(), L"logs") == 0) {
            entry.disable_recursion_pending();
        }
    }
    return true;
}

// Whether all files can be replaced, once the engine has ended.
bool AllAreFree(const std::wstring& folder) {
    const std::vector<ProgramProcess> engine = EngineIn(folder + kEngineFolder);
    for (const std::wstring& path : List(L"\\files.txt")) {
        const std::wstring file = std::filesystem::path(folder) / path;
        const bool runs = std::any_of(engine.begin(), engine.end(), [&](const ProgramProcess& process) {
            return NameSameFile(process.path, file);
        });
        const OwnedHandle opened = Own(CreateFileW(file.c_str(), GENERIC_WRITE | DELETE,
                                                   FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                                   nullptr, OPEN_EXISTING, 0, nullptr));
        const DWORD error = opened ? ERROR_SUCCESS : GetLastError();
        if (error != ERROR_SUCCESS && error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND &&
            !runs) {
            return No(Utf8FromWide(file) + " cannot be written: " + SystemErrorWithCode(error));
        }
    }
    return true;
}

bool EngineEnds(const std::wstring& folder) {
    for (const ProgramProcess& process : EngineIn(folder + kEngineFolder)) {
        if (!EndProcess(process.id)) {
            return No(Utf8FromWide(process.path) + ", process " + std::to_string(process.id) +
                      ", cannot be ended");
        }
    }
    return true;
}

bool IsOurs(const std::wstring& file) {
    return !OurVersion(file).empty();
}

constexpr struct {
    const wchar_t* question;
    bool (*answer)(const std::wstring& subject);
} kQuestions[] = {{L"folder", FolderIsGood}, {L"settings", SettingsAreGood}, {L"account", AccountExists},
                  {L"own", HoldsOnlyOwn},    {L"free", AllAreFree},          {L"end", EngineEnds},
                  {L"ours", IsOurs}};

}  // namespace
}  // namespace kesto::setup

int wmain(int count, wchar_t** arguments) {
    kesto::EnableDebugPrivilege();
    for (const auto& [question, answer] : kesto::setup::kQuestions) {
        if (count == 3 && wcscmp(arguments[1], question) == 0) {
            return answer(arguments[2]) ? 0 : 1;
        }
    }
    return 1;
}
