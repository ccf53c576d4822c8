#include <winsock2.h>
#include <windows.h>
#include <psapi.h>

#include <span>
#include <stdexcept>

#include "bench/bench.h"
#include "bench/wire.h"

namespace kesto {

StartedPlugin::StartedPlugin(uint16_t port, bool encrypt) {
    if (Start(Servers(port) + "autostart=0\nencrypt=" + std::to_string(encrypt)) != 0) {
        throw std::runtime_error("the plug-in does not start");
    }
}

void StartedPlugin::Scan(std::string_view data) const {
    if (const std::string outcome = InstalledPlugin::Scan(data); outcome != "clean") {
        throw std::runtime_error("the plug-in does not find a file clean: " + outcome);
    }
}

StartedBridge::StartedBridge(uint16_t upstream)
    : port(installed.PlaceBridge("127.0.0.1:" + std::to_string(upstream))), run(installed.engine) {
    WaitForListener(port);
}

double StartedBridge::WorkingSetKilobytes() const {
    size_t bytes = 0;
    DWORD ids[4096], size = 0;
    EnumProcesses(ids, sizeof ids, &size);
    for (const DWORD id : std::span(ids, size / sizeof *ids)) {
        HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, id);
        wchar_t path[MAX_PATH] = L"";
        DWORD length = MAX_PATH;
        PROCESS_MEMORY_COUNTERS counters = {};
        if (QueryFullProcessImageNameW(process, 0, path, &length) &&
            std::filesystem::path(path).parent_path() == installed.engine_folder &&
            GetProcessMemoryInfo(process, &counters, sizeof counters)) {
            bytes += counters.WorkingSetSize;
        }
        CloseHandle(process);
    }
    return static_cast<double>(bytes) / 1024;
}

}  // namespace kesto
