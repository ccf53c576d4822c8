#include "host/common/engine_processes.h"

#include <windows.h>
// Needs windows.h before it.
#include <tlhelp32.h>

#include <cwchar>

namespace kesto {

std::vector<EngineProcess> EngineProcesses() {
    std::vector<EngineProcess> engines;
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    if (snapshot == INVALID_HANDLE_VALUE) {
        return engines;
    }
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof entry;
    for (BOOL more = Process32FirstW(snapshot, &entry); more; more = Process32NextW(snapshot, &entry)) {
        if (_wcsicmp(entry.szExeFile, L"kestoav.exe") != 0) {
            continue;
        }
        EngineProcess engine = {entry.th32ProcessID, false, L""};
        // The right that the plug-in asks for.
        if (HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, engine.id)) {
            wchar_t path[1024];
            DWORD length = 1024;
            engine.visible = true;
            if (QueryFullProcessImageNameW(process, 0, path, &length)) {
                engine.path.assign(path, length);
            }
            CloseHandle(process);
        }
        engines.push_back(engine);
    }
    CloseHandle(snapshot);
    return engines;
}

}  // namespace kesto
