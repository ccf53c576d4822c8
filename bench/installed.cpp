#include <winsock2.h>
#include <windows.h>
#include <psapi.h>

#include <stdexcept>

#include "bench/bench.h"
#include "bench/wire.h"
#include "common/owned_handle.h"
#include "common/processes.h"

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
    for (const ProgramProcess& each : EngineIn(installed.engine_folder)) {
        const OwnedHandle process =
            Own(OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, each.id));
        PROCESS_MEMORY_COUNTERS counters = {};
        if (GetProcessMemoryInfo(process.get(), &counters, sizeof counters)) {
            bytes += counters.WorkingSetSize;
        }
    }
    return static_cast<double>(bytes) / 1024;
}

}  // namespace kesto
