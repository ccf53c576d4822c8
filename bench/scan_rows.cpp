// Scans through the built library against a bare sender of the same bytes, and the byte shift alone.
#include <cstring>
#include <stdexcept>

#include "base/byte_shift.h"
#include "bench/bench.h"
#include "bench/plugin_copy.h"
#include "bench/timing.h"
#include "bench/wire.h"
#include "plugin/engine/stream_scan.h"
#include "plugin/process/engine_process.h"

namespace kesto {
namespace {

constexpr double kMegabyte = 1e6;

// The scan without the search for the engine process.
void ConnectAndExchange(uint16_t port, const uint8_t* data, size_t size, bool encrypt) {
    const ScanFileInput input = {"bench.bin", static_cast<uint32_t>(size), data};
    SocketConnection connection;
    ReceivedText reply;
    if (!connection.Connect("127.0.0.1", port, false, 1000) ||
        StreamScan(connection, input, encrypt, reply).kind != VerdictKind::kClean) {
        throw std::runtime_error("a scan failed");
    }
}

Row Throughput(const std::string& name, double bytes, const Comparison& times) {
    return {.name = name,
            .unit = "MB/s",
            .value = bytes / times.seconds / kMegabyte,
            .beside_name = "bare sender",
            .beside = bytes / times.beside_seconds / kMegabyte,
            .ratio = times.speed};
}

}  // namespace

void MeasureScans(Bench& bench, uint16_t sink) {
    struct {
        const char* name;
        size_t size;
    } static constexpr kFiles[] = {{"1 KB", 1000},
                                   {"100 KB", 100'000},
                                   {"1 MB", 1'000'000},
                                   {"16 MB", 16'000'000},
                                   {"128 MB", 128'000'000}};
    for (bool encrypt : {true, false}) {
        const PluginCopy plugin(encrypt ? "encrypting" : "plain", sink, encrypt);
        for (const auto& file : kFiles) {
            const Comparison times = Compare(
                bench.rounds, [&] { plugin.Scan(bench.file.data(), file.size); },
                [&] { SendBare(sink, bench.file.data(), file.size); });
            Row row = Throughput(std::string("scan ") + file.name + ", encrypt " + (encrypt ? "on" : "off"),
                                 static_cast<double>(file.size), times);
            if (file.size >= 100'000) {
                row.least_ratio = 0.95;
            }
            if (row.Missed()) {
                const Comparison exchange = Compare(
                    bench.rounds, [&] { ConnectAndExchange(sink, bench.file.data(), file.size, encrypt); },
                    [&] { SendBare(sink, bench.file.data(), file.size); });
                const double walk = SecondsFor(50, [] { FindEngineProcess(); }) / 50;
                row.explanation = Formatted(
                    "of the %.1f ms of a call the walk of the process table takes %.1f ms; connect and "
                    "exchange alone reach %.2f of the bare sender",
                    times.seconds * 1e3, walk * 1e3, exchange.speed);
            }
            bench.rows.push_back(row);
        }
    }
}

void MeasureThreads(Bench& bench, uint16_t sink) {
    constexpr size_t kSize = 100'000;
    const PluginCopy plugin("encrypting", sink, true);
    for (int threads : {1, 2, 4, 8}) {
        const Comparison times = Compare(
            bench.rounds, [&] { plugin.Scan(bench.file.data(), kSize); },
            [&] { SendBare(sink, bench.file.data(), kSize); }, threads);
        bench.rows.push_back(Throughput(std::to_string(threads) + " calling threads, 100 KB",
                                        static_cast<double>(kSize) * threads, times));
    }
}

void MeasureShift(Bench& bench) {
    constexpr size_t kBlock = 8192;  // one chunk, which stays in the cache
    alignas(64) static uint8_t block[kBlock];
    alignas(64) static uint8_t copy[kBlock];
    // Through volatile pointers: neither side may be inlined or left out.
    static auto* volatile shift = &ShiftBytesDown;
    static auto* volatile copy_bytes = &memcpy;
    const Comparison times = Compare(
        bench.rounds, [] { shift(block, kBlock); }, [] { copy_bytes(copy, block, kBlock); });
    Row row = Throughput("byte shift, 8 KB blocks", kBlock, times);
    row.beside_name = "memcpy";
    row.least_ratio = 0.8;
    row.explanation = Formatted("a chunk of 8 KB takes %.2f us to shift", times.seconds * 1e6);
    bench.rows.push_back(row);
}

}  // namespace kesto
