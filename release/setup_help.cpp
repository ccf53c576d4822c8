// Questions of the set-up program to Windows and to the bridge's own reader. It runs this program from a
// temporary folder. The exit code is the answer: 0 is yes, 1 is no, with the reason on standard output.
#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

#include "common/bridge_ini.h"
#include "common/processes.h"

namespace kesto::setup {
namespace {

// Every process of exactly this program file, even if an upgrade has renamed it since.
std::vector<uint32_t> ProcessesOf(const std::wstring& file) {
    std::vector<uint32_t> ids;
    const auto same = [&](const std::wstring& path) {
        return NameSameFile(path, file) || NameSameFile(path, file + L".old") ||
               NameSameFile(path, file + L".old2");
    };
    for (const ProgramProcess& process : ProcessesNamed(file.substr(file.find_last_of(L'\\') + 1).c_str())) {
        if (!process.path.empty() && same(process.path)) {
            ids.push_back(process.id);
        }
    }
    return ids;
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
    if (LookupAccountNameW(nullptr, name.c_str(), sid, &sid_size, domain, &domain_size, &use) != FALSE) {
        return true;
    }
    std::puts("Windows knows no account of this name");
    return false;
}

bool EndAll(const std::wstring& file) {
    bool ended = true;
    for (const uint32_t id : ProcessesOf(file)) {
        ended &= EndProcess(id);
    }
    return ended;
}

// Whether a program belongs to KESTO AV, according to its version resource.
bool IsOurs(const std::wstring& file) {
    DWORD ignored;
    std::vector<BYTE> resource(GetFileVersionInfoSizeW(file.c_str(), &ignored));
    void* product;
    UINT length;
    return !resource.empty() &&
           GetFileVersionInfoW(file.c_str(), 0, static_cast<DWORD>(resource.size()), resource.data()) !=
               FALSE &&
           VerQueryValueW(resource.data(), L"\\StringFileInfo\\040904E4\\ProductName", &product, &length) !=
               FALSE &&
           std::wstring(static_cast<const wchar_t*>(product)) == L"KESTO AV";
}

bool Answer(const std::wstring& question, const std::wstring& subject) {
    if (question == L"settings") {
        return SettingsAreGood(subject);
    }
    if (question == L"account") {
        return AccountExists(subject);
    }
    if (question == L"ours") {
        return IsOurs(subject);
    }
    return question == L"end" ? EndAll(subject) : !ProcessesOf(subject).empty();
}

}  // namespace
}  // namespace kesto::setup

int wmain(int count, wchar_t** arguments) {
    return count == 3 && kesto::setup::Answer(arguments[1], arguments[2]) ? 0 : 1;
}
