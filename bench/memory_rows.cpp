// What a scan takes while it runs.
#include <winsock2.h>
#include <windows.h>
#include <psapi.h>

#include <stdexcept>
#include <vector>

#include "bench/bench.h"

namespace kesto {
namespace {

PROCESS_MEMORY_COUNTERS MemoryCounters() {
    PROCESS_MEMORY_COUNTERS counters = {};
    GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters);
    return counters;
}

}  // namespace

void MeasureMemory(Bench& bench, uint16_t sink) {
    const StartedPlugin plugin(sink);
    const auto small = std::string_view(bench.file).substr(0, 1000);
    plugin.Scan(small);
    // Memory that was taken and given back would hide what a scan takes: fill up to a new peak.
    const PROCESS_MEMORY_COUNTERS earlier = MemoryCounters();
    const std::vector<uint8_t> ballast(earlier.PeakWorkingSetSize - earlier.WorkingSetSize + 4'000'000, 1);
    const size_t peak = MemoryCounters().PeakWorkingSetSize;
    if (peak < earlier.PeakWorkingSetSize + 3'000'000) {
        throw std::runtime_error("the system does not tell the peak of this process's memory");
    }
    plugin.Scan(bench.file);
    bench.rows.push_back({.name = "growth of the peak while 256 MB are scanned",
                          .unit = "KB",
                          .value = static_cast<double>(MemoryCounters().PeakWorkingSetSize - peak) / 1024,
                          .most = 64});
}

}  // namespace kesto
