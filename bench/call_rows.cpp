// Where the time of one small scan goes.
#include <windows.h>
#include <psapi.h>

#include <chrono>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <vector>

#include "bench/bench.h"
#include "bench/child_process.h"
#include "bench/plugin_copy.h"
#include "bench/timing.h"
#include "bench/wire.h"
#include "plugin/engine/stream_scan.h"
#include "plugin/process/engine_process.h"

namespace kesto {
namespace {

constexpr uint32_t kSize = 1000;

}  // namespace

void MeasureCall(Bench& bench, uint16_t sink) {
    using Clock = std::chrono::steady_clock;
    constexpr int kCalls = 100;
    const PluginCopy plugin("encrypting", sink, true);
    const ScanFileInput input = {"bench.bin", kSize, bench.file.data()};
    struct {
        const char* name;
        std::vector<double> microseconds;  // one a round
    } parts[] = {{"one call with 1 KB", {}},    {"  its process walk", {}},
                 {"  its connect", {}},         {"  its exchange: send, reply, close", {}},
                 {"bare sender's connect", {}}, {"bare sender's exchange", {}}};
    for (int round = 0; round < bench.rounds; ++round) {
        Clock::duration spent[std::size(parts)] = {};
        for (int call = 0; call < kCalls; ++call) {
            Clock::time_point last = Clock::now();
            auto stop = [&](size_t part) {
                const Clock::time_point now = Clock::now();
                spent[part] += now - last;
                last = now;
            };
            plugin.Scan(input.data, kSize);
            stop(0);
            FindEngineProcess();
            stop(1);
            SocketConnection connection;
            connection.Connect("127.0.0.1", sink, false, 1000);
            stop(2);
            ReceivedText reply;
            StreamScan(connection, input, true, reply);
            stop(3);
            const SOCKET bare = ConnectTo(sink);
            stop(4);
            SendBareOver(bare, input.data, kSize);
            stop(5);
        }
        for (size_t part = 0; part < std::size(parts); ++part) {
            parts[part].microseconds.push_back(
                std::chrono::duration<double, std::micro>(spent[part]).count() / kCalls);
        }
    }
    for (const auto& part : parts) {
        bench.rows.push_back({.name = part.name, .unit = "us", .value = Median(part.microseconds)});
    }
}

namespace {

size_t ProcessCount() {
    DWORD ids[4096];
    DWORD bytes = 0;
    EnumProcesses(ids, sizeof ids, &bytes);
    return bytes / sizeof ids[0];
}

}  // namespace

// No engine runs here, so that every process is looked at: the longest walk there can be.
void MeasureProcessWalks(Bench& bench) {
    if (FindEngineProcess() != 0) {
        throw std::runtime_error("a kestoav.exe is running already");
    }
    std::vector<std::unique_ptr<ChildProcess>> idle;
    for (size_t wanted : {20, 100, 300}) {
        while (ProcessCount() < wanted) {
            idle.push_back(std::make_unique<ChildProcess>(ProgramFolder() / "bench.exe", "idle"));
        }
        constexpr int kCalls = 20;
        std::vector<double> seconds;
        seconds.reserve(bench.rounds);
        for (int round = 0; round < bench.rounds; ++round) {
            seconds.push_back(SecondsFor(kCalls, [] { FindEngineProcess(); }) / kCalls);
        }
        bench.rows.push_back({.name = "process walk, " + std::to_string(ProcessCount()) + " processes",
                              .unit = "us",
                              .value = Median(seconds) * 1e6});
    }
}

}  // namespace kesto
