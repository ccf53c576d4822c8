// Scans through the built library against a bare sender of the same bytes, and the byte shift alone.
#include <cstring>

#include "base/byte_shift.h"
#include "bench/bench.h"
#include "bench/timing.h"
#include "bench/wire.h"

namespace kesto {
namespace {

Row Throughput(const std::string& name, double bytes, const Comparison& times) {
    return {.name = name,
            .unit = "MB/s",
            .value = bytes / times.seconds / 1e6,
            .beside_name = "bare sender",
            .beside = bytes / times.beside_seconds / 1e6,
            .ratio = times.speed};
}

}  // namespace

void MeasureScans(Bench& bench, uint16_t sink) {
    const std::pair<const char*, size_t> files[] = {{"1 KB", 1000},
                                                    {"100 KB", 100'000},
                                                    {"1 MB", 1'000'000},
                                                    {"16 MB", 16'000'000},
                                                    {"128 MB", 128'000'000}};
    for (bool encrypt : {true, false}) {
        const StartedPlugin plugin(sink, encrypt);
        for (const auto& [name, size] : files) {
            const auto data = std::string_view(bench.file).substr(0, size);
            const Comparison times = Compare(
                bench.rounds, [&] { plugin.Scan(data); }, [&] { SendBare(sink, data); });
            bench.rows.push_back(Throughput(
                std::string("scan ") + name + ", encrypt " + (encrypt ? "on" : "off"), data.size(), times));
            if (size >= 100'000) {
                bench.rows.back().least_ratio = 0.95;
            }
        }
    }
}

void MeasureShift(Bench& bench) {
    constexpr size_t kBlock = 8192;  // one chunk, which stays in the cache
    alignas(64) static uint8_t block[kBlock];
    alignas(64) static uint8_t copy[kBlock];
    // Through volatile pointers: neither side may be inlined or left out.
    static auto* volatile shift = &ShiftBytes;
    static auto* volatile copy_bytes = &memcpy;
    const Comparison times = Compare(
        bench.rounds, [] { shift(block, kBlock, -1); }, [] { copy_bytes(copy, block, kBlock); });
    Row row = Throughput("byte shift, 8 KB blocks", kBlock, times);
    row.beside_name = "memcpy";
    row.least_ratio = 0.8;
    bench.rows.push_back(row);
}

}  // namespace kesto
