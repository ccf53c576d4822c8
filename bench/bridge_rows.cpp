// What the bridge costs between a plug-in and its engine, and both with a real clamd.
#include <windows.h>
#include <psapi.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bench/bench.h"
#include "bench/plugin_copy.h"
#include "bench/timing.h"
#include "bench/wire.h"
#include "tests/loopback/loopback.h"

namespace kesto {
namespace {

double WorkingSetKilobytes(HANDLE process) {
    PROCESS_MEMORY_COUNTERS counters = {};
    GetProcessMemoryInfo(process, &counters, sizeof counters);
    return static_cast<double>(counters.WorkingSetSize) / 1024;
}

void MeasureOpenConnections(Bench& bench, const BridgeProcess& bridge) {
    constexpr int kConnections = 200;
    constexpr size_t kSent = 500'000;
    const double before = WorkingSetKilobytes(bridge.Handle());
    std::vector<SOCKET> connections;
    for (int i = 0; i < kConnections; ++i) {
        const SOCKET connection = ConnectTo(bridge.Port());
        // In the middle of a chunk.
        const uint32_t prefix = htonl(1'000'000);
        SendAll(connection, "zINSTREAM", 10);
        SendAll(connection, &prefix, sizeof prefix);
        SendAll(connection, bench.file.data(), kSent);
        connections.push_back(connection);
    }
    bench.rows.push_back({.name = "bridge: memory for 200 open scans",
                          .unit = "KB",
                          .value = WorkingSetKilobytes(bridge.Handle()) - before});
    for (SOCKET connection : connections) {
        closesocket(connection);
    }
}

}  // namespace

void MeasureBridge(Bench& bench, uint16_t sink) {
    constexpr size_t kSize = 16'000'000;
    const BridgeProcess bridge(sink);
    const PluginCopy direct("encrypting", sink, true);
    const PluginCopy through("through", bridge.Port(), true);
    for (int connections : {1, 8}) {
        const Comparison times = Compare(
            bench.rounds, [&] { through.Scan(bench.file.data(), kSize); },
            [&] { direct.Scan(bench.file.data(), kSize); }, connections);
        const double megabytes = kSize / 1e6 * connections;
        bench.rows.push_back(
            {.name = "bridge: 16 MB, connections at once: " + std::to_string(connections),
             .unit = "MB/s",
             .value = megabytes / times.seconds,
             .beside_name = "direct",
             .beside = megabytes / times.beside_seconds,
             .ratio = times.speed,
             .least_ratio = 0.7,
             .explanation = Formatted("every byte is received and sent once more on the same %u "
                                      "processors that run sender, sink and Wine: %.0f ms instead of %.0f ms",
                                      std::thread::hardware_concurrency(), times.seconds * 1e3,
                                      times.beside_seconds * 1e3)});
    }
    MeasureOpenConnections(bench, bridge);
}

namespace {

// Runs a command of the Unix system below and returns what it prints. There is no handle to wait for: its
// output goes to a connection, which ends with it.
std::string RunUnixCommand(const std::string& command) {
    uint16_t port = 0;
    const SOCKET listener = ListenOnLoopback(port);
    const ChildProcess shell("/bin/bash",
                             "-c \"exec " + command + " >/dev/tcp/127.0.0.1/" + std::to_string(port) + "\"");
    const SOCKET connection = accept(listener, nullptr, nullptr);
    std::string output;
    char text[4096];
    for (int count; (count = recv(connection, text, sizeof text, 0)) > 0;) {
        output.append(text, static_cast<size_t>(count));
    }
    closesocket(connection);
    closesocket(listener);
    return output;
}

}  // namespace

void MeasureClamd(Bench& bench, uint16_t clamd, const std::string& clamdscan) {
    constexpr int kFiles = 16;
    constexpr size_t kSize = 1'000'000;
    std::filesystem::create_directory("files");
    auto data = [&](int i) { return bench.file.data() + i * kSize; };
    for (int i = 0; i < kFiles; ++i) {
        std::ofstream("files\\" + std::to_string(i), std::ios::binary)
            .write(reinterpret_cast<const char*>(data(i)), kSize);
    }
    auto scan_all = [&](const PluginCopy& plugin) {
        for (int i = 0; i < kFiles; ++i) {
            plugin.Scan(data(i), kSize);
        }
    };
    const Work client = [&] {
        const std::string output = RunUnixCommand(clamdscan + " files/*");
        if (std::count(output.begin(), output.end(), '\n') != kFiles) {
            throw std::runtime_error("clamdscan answers: " + output);
        }
    };
    auto measure = [&](const char* name, const PluginCopy& plugin) {
        const Comparison times = Compare(
            bench.rounds, [&] { scan_all(plugin); }, client);
        constexpr double kMegabytes = kFiles * kSize / 1e6;
        bench.rows.push_back({.name = name,
                              .unit = "MB/s",
                              .value = kMegabytes / times.seconds,
                              .beside_name = "clamdscan --stream",
                              .beside = kMegabytes / times.beside_seconds,
                              .ratio = times.speed});
    };
    measure("clamd, 16 files of 1 MB: straight", PluginCopy("clamd", clamd, false));
    const BridgeProcess bridge(clamd);
    measure("clamd, 16 files of 1 MB: through the bridge", PluginCopy("clamd_through", bridge.Port(), true));
}

}  // namespace kesto
