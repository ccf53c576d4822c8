#include "common/processes.h"

#include <windows.h>
// Needs windows.h before it.
#include <tlhelp32.h>

#include <cwchar>
#include <functional>

#include "common/file_bytes.h"

namespace kesto {
namespace {

constexpr DWORD kEndMs = 10'000;

void ForEachProcess(const std::function<void(const PROCESSENTRY32W&)>& look) {
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    if (snapshot == INVALID_HANDLE_VALUE) {
        return;
    }
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof entry;
    for (BOOL more = Process32FirstW(snapshot, &entry); more; more = Process32NextW(snapshot, &entry)) {
        look(entry);
    }
    CloseHandle(snapshot);
}

}  // namespace

void EnableDebugPrivilege() {
    HANDLE token = nullptr;
    TOKEN_PRIVILEGES wanted = {1, {{{}, SE_PRIVILEGE_ENABLED}}};
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, &token)) {
        return;
    }
    if (LookupPrivilegeValueW(nullptr, L"SeDebugPrivilege", &wanted.Privileges[0].Luid)) {
        AdjustTokenPrivileges(token, FALSE, &wanted, 0, nullptr, nullptr);
    }
    CloseHandle(token);
}

std::vector<ProgramProcess> ProcessesNamed(const wchar_t* name) {
    std::vector<ProgramProcess> processes;
    ForEachProcess([&](const PROCESSENTRY32W& entry) {
        if (_wcsicmp(entry.szExeFile, name) != 0) {
            return;
        }
        ProgramProcess found = {entry.th32ProcessID, false, L""};
        // The right that the plug-in asks for.
        if (HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, found.id)) {
            wchar_t path[1024];
            DWORD length = 1024;
            found.visible = true;
            if (QueryFullProcessImageNameW(process, 0, path, &length)) {
                found.path.assign(path, length);
            }
            CloseHandle(process);
        }
        processes.push_back(found);
    });
    return processes;
}

bool EndProcess(uint32_t id) {
    HANDLE process = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, id);
    if (process == nullptr) {
        return GetLastError() == ERROR_INVALID_PARAMETER;  // there is no such process any more
    }
    TerminateProcess(process, 0);
    const bool ended = WaitForSingleObject(process, kEndMs) == WAIT_OBJECT_0;
    CloseHandle(process);
    return ended;
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

}  // namespace kesto
