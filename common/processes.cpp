#include "common/processes.h"

#include <windows.h>
// Needs windows.h before it.
#include <tlhelp32.h>

#include <algorithm>
#include <cwchar>
#include <functional>

#include "common/file_bytes.h"
#include "common/guard_words.h"
#include "common/owned_handle.h"

namespace kesto {
namespace {

constexpr DWORD kEndMs = 10'000;

void ForEachProcess(const std::function<void(const PROCESSENTRY32W&)>& look) {
    const OwnedHandle snapshot = Own(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof entry;
    for (BOOL more = Process32FirstW(snapshot.get(), &entry); more;
         more = Process32NextW(snapshot.get(), &entry)) {
        look(entry);
    }
}

std::wstring ProgramOf(HANDLE process) {
    wchar_t path[1024];
    DWORD length = 1024;
    return QueryFullProcessImageNameW(process, 0, path, &length) ? std::wstring(path, length) : L"";
}

OwnedHandle TokenOf(HANDLE process, DWORD right) {
    HANDLE token = nullptr;
    OpenProcessToken(process, right, &token);
    return Own(token);
}

}  // namespace

void EnableDebugPrivilege() {
    TOKEN_PRIVILEGES wanted = {1, {{{}, SE_PRIVILEGE_ENABLED}}};
    LookupPrivilegeValueW(nullptr, L"SeDebugPrivilege", &wanted.Privileges[0].Luid);
    AdjustTokenPrivileges(TokenOf(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES).get(), FALSE, &wanted, 0,
                          nullptr, nullptr);
}

std::vector<ProgramProcess> ProcessesNamed(const wchar_t* name) {
    std::vector<ProgramProcess> processes;
    ForEachProcess([&](const PROCESSENTRY32W& entry) {
        if (_wcsicmp(entry.szExeFile, name) != 0) {
            return;
        }
        // The right that the plug-in asks for. What has ended meanwhile is not hidden.
        const OwnedHandle process = Own(OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, entry.th32ProcessID));
        if (process || GetLastError() == ERROR_ACCESS_DENIED) {
            processes.push_back({entry.th32ProcessID, process != nullptr, ProgramOf(process.get())});
        }
    });
    return processes;
}

std::wstring ProgramOf(uint32_t id) {
    return ProgramOf(Own(OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, id)).get());
}

std::vector<ProgramProcess> ProcessesOf(const std::wstring& file) {
    const size_t end = file.rfind(L'\\');
    std::vector<ProgramProcess> processes = ProcessesNamed(file.c_str() + end + 1);
    std::erase_if(processes, [&](const auto& each) { return !LiesIn(each.path, file.substr(0, end)); });
    return processes;
}

std::vector<ProgramProcess> EngineIn(const std::wstring& folder) {
    std::vector<ProgramProcess> engine = ProcessesOf(folder + L"\\kestoav.exe");
    const std::vector<ProgramProcess> workers = ProcessesOf(folder + L"\\" + kWorkerProgram);
    engine.insert(engine.end(), workers.begin(), workers.end());
    return engine;
}

bool AnyVisible(const std::vector<ProgramProcess>& processes) {
    return std::any_of(processes.begin(), processes.end(), [](const auto& each) { return each.visible; });
}

std::string HiddenEngine(const std::vector<ProgramProcess>& engines) {
    return AnyVisible(engines) || engines.empty()
               ? ""
               : "kestoav.exe runs as process " + std::to_string(engines[0].id) + " under another account";
}

std::wstring AccountOf(uint32_t id) {
    alignas(TOKEN_USER) BYTE user[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
    wchar_t name[256];
    wchar_t domain[256];
    DWORD size = sizeof user;
    DWORD name_size = 256;
    DWORD domain_size = 256;
    SID_NAME_USE use;
    const OwnedHandle process = Own(OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, id));
    const OwnedHandle token = TokenOf(process.get(), TOKEN_QUERY);
    return GetTokenInformation(token.get(), TokenUser, user, size, &size) &&
                   LookupAccountSidW(nullptr, reinterpret_cast<TOKEN_USER*>(user)->User.Sid, name, &name_size,
                                     domain, &domain_size, &use)
               ? std::wstring(domain) + L"\\" + name
               : L"";
}

bool EndProcess(uint32_t id) {
    const OwnedHandle process = Own(OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, id));
    if (!process) {
        return GetLastError() == ERROR_INVALID_PARAMETER;  // there is no such process any more
    }
    TerminateProcess(process.get(), 0);
    return WaitForSingleObject(process.get(), kEndMs) == WAIT_OBJECT_0;
}

std::wstring ProcessName(uint32_t id) {
    std::wstring name;
    ForEachProcess([&](const PROCESSENTRY32W& entry) {
        if (entry.th32ProcessID == id && id != 0) {
            name = entry.szExeFile;
        }
    });
    return name;
}

bool NameSameFile(const std::wstring& a, const std::wstring& b) {
    const auto first = IdentityOf(a);
    const auto second = IdentityOf(b);
    return first && second ? SameFile(first, second) : _wcsicmp(a.c_str(), b.c_str()) == 0;
}

bool LiesIn(const std::wstring& program, const std::wstring& folder) {
    return NameSameFile(program.substr(0, program.rfind(L'\\')), folder);
}

}  // namespace kesto
