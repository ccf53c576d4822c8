// What scans leave behind, and what they take while they run.
#include <winsock2.h>
#include <windows.h>
#include <psapi.h>
#include <winternl.h>

#include <stdexcept>
#include <vector>

#include "bench/bench.h"
#include "bench/plugin_copy.h"

namespace kesto {
namespace {

struct OpenHandles {
    int all = 0;
    int sockets = 0;
};

// The system's own list, since not every system answers GetProcessHandleCount.
OpenHandles CountHandles() {
    struct Entry {
        void* object;
        ULONG_PTR process;
        ULONG_PTR handle;
        ULONG access;
        USHORT trace;
        USHORT type;
        ULONG attributes;
        ULONG reserved;
    };
    struct List {
        ULONG_PTR count;
        ULONG_PTR reserved;
        Entry entries[1];
    };
    constexpr auto kExtendedHandleInformation = static_cast<SYSTEM_INFORMATION_CLASS>(64);
    std::vector<uint8_t> bytes(4 * 1024 * 1024);
    auto* query = reinterpret_cast<decltype(&NtQuerySystemInformation)>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("ntdll"), "NtQuerySystemInformation")));
    if (query == nullptr ||
        query(kExtendedHandleInformation, bytes.data(), static_cast<ULONG>(bytes.size()), nullptr) != 0) {
        throw std::runtime_error("the system does not list its handles");
    }
    const List& list = *reinterpret_cast<const List*>(bytes.data());
    OpenHandles open;
    for (ULONG_PTR i = 0; i < list.count; ++i) {
        const Entry& entry = list.entries[i];
        if (entry.process == GetCurrentProcessId()) {
            int type;
            int size = sizeof type;
            ++open.all;
            open.sockets +=
                getsockopt(entry.handle, SOL_SOCKET, SO_TYPE, reinterpret_cast<char*>(&type), &size) == 0;
        }
    }
    return open;
}

PROCESS_MEMORY_COUNTERS MemoryCounters() {
    PROCESS_MEMORY_COUNTERS counters = {};
    GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters);
    return counters;
}

}  // namespace

void MeasureMemory(Bench& bench, uint16_t sink) {
    constexpr int kScans = 10'000;
    const PluginCopy plugin("encrypting", sink, true);
    plugin.Scan(bench.file.data(), 100'000);
    // Memory that was taken and given back would hide what a scan takes: fill up to a new peak.
    const PROCESS_MEMORY_COUNTERS earlier = MemoryCounters();
    const std::vector<uint8_t> ballast(earlier.PeakWorkingSetSize - earlier.WorkingSetSize + 4'000'000, 1);
    const size_t peak = MemoryCounters().PeakWorkingSetSize;
    if (peak < earlier.PeakWorkingSetSize + 3'000'000) {
        throw std::runtime_error("the system does not tell the peak of this process's memory");
    }
    plugin.Scan(bench.file.data(), bench.file.size());
    bench.rows.push_back(
        {.name = "growth of the peak while 256 MB are scanned",
         .unit = "KB",
         .value = static_cast<double>(MemoryCounters().PeakWorkingSetSize - peak) / 1024,
         .most = 64,
         .explanation = Formatted("the peak was %.0f KB before", static_cast<double>(peak) / 1024)});
    const OpenHandles before = CountHandles();
    for (int i = 0; i < kScans; ++i) {
        plugin.Scan(bench.file.data(), 1000);
    }
    const OpenHandles after = CountHandles();
    bench.rows.push_back({.name = "handles left by 10,000 scans",
                          .unit = "",
                          .value = static_cast<double>(after.all - before.all),
                          .most = 0,
                          .explanation = Formatted("%d before, %d after", before.all, after.all)});
    bench.rows.push_back({.name = "sockets left by 10,000 scans",
                          .unit = "",
                          .value = static_cast<double>(after.sockets - before.sockets),
                          .most = 0,
                          .explanation = Formatted("%d before, %d after", before.sockets, after.sockets)});
    // A count that never changes would prove nothing.
    const SOCKET one = socket(AF_INET, SOCK_STREAM, 0);
    const OpenHandles with_one = CountHandles();
    closesocket(one);
    if (with_one.all != after.all + 1 || with_one.sockets != after.sockets + 1) {
        throw std::runtime_error("the count of handles does not see a socket that is open");
    }
}

}  // namespace kesto
