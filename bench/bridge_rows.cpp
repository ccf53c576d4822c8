// What the bridge costs between a plug-in and its engine, and both with a real clamd.
#include <windows.h>
#include <psapi.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <tuple>
#include <vector>

#include "base/clamd_words.h"
#include "bench/bench.h"
#include "bench/plugin_copy.h"
#include "bench/processor_time.h"
#include "bench/timing.h"
#include "bench/wire.h"
#include "common/server_talk.h"
#include "tests/loopback/loopback.h"

namespace kesto {
namespace {

using namespace std::chrono_literals;

double WorkingSetKilobytes(HANDLE process) {
    PROCESS_MEMORY_COUNTERS counters = {};
    GetProcessMemoryInfo(process, &counters, sizeof counters);
    return static_cast<double>(counters.WorkingSetSize) / 1024;
}

// File data that the bridge has taken in so far, in bytes.
double BytesTaken(uint16_t bridge) {
    const ServerAnswer counters =
        AskServer({"127.0.0.1", bridge}, kStatsCommand, std::chrono::steady_clock::now() + 10s);
    constexpr std::string_view kName = "\nkestoav_bytes_total ";
    const std::string& text = counters.reply.value();
    return std::stod(text.substr(text.find(kName) + kName.size()));
}

constexpr size_t kSmall = 1000;

// Scans of which all but the end has been sent: the bridge keeps each, so that it can be repeated.
void MeasureOpenScans(Bench& bench, const BridgeProcess& bridge) {
    constexpr int kScans = 200;
    constexpr size_t kSize = 1'000'000;
    constexpr double kKeptKilobytes = 128 * 1024;
    constexpr double kBesideKilobytes = 10 * 1024;
    const double before = WorkingSetKilobytes(bridge.Handle());
    const double taken_before = BytesTaken(bridge.Port());
    std::vector<SOCKET> connections;
    for (int i = 0; i < kScans; ++i) {
        const SOCKET connection = ConnectTo(bridge.Port());
        const uint32_t prefix = htonl(kSize);
        SendAll(connection, kScanCommand.data(), kScanCommand.size());
        SendAll(connection, &prefix, sizeof prefix);
        SendAll(connection, bench.file.data(), kSize);
        connections.push_back(connection);
    }
    if (!WaitFor([&] { return BytesTaken(bridge.Port()) >= taken_before + double{kScans} * kSize; })) {
        throw std::runtime_error("the bridge does not take in what it is sent");
    }
    bench.rows.push_back({.name = "bridge: memory for 200 scans of 1 MB under way",
                          .unit = "KB",
                          .value = WorkingSetKilobytes(bridge.Handle()) - before,
                          .most = kKeptKilobytes + kBesideKilobytes,
                          .explanation = "more than `keep` and 10 MB"});
    for (SOCKET connection : connections) {
        closesocket(connection);
    }
}

void MeasureBridgeThroughput(Bench& bench, const PluginCopy& through, const PluginCopy& direct) {
    constexpr size_t kSize = 16'000'000;
    struct {
        int connections;
        double least_ratio;
    } static constexpr kRows[] = {{1, 0.8}, {8, 0.9}};
    for (const auto& [connections, least_ratio] : kRows) {
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
             .least_ratio = least_ratio,
             .explanation = Formatted("every byte is received and sent once more on the same %u "
                                      "processors that run sender, sink and Wine: %.0f ms instead of %.0f ms",
                                      std::thread::hardware_concurrency(), times.seconds * 1e3,
                                      times.beside_seconds * 1e3)});
    }
}

// Bare senders: the plug-in's walk of the process table would take most of the time on both sides.
void MeasureSmallScans(Bench& bench, uint16_t bridge, uint16_t sink) {
    constexpr int kCalls = 2000;
    for (int clients : {1, 8, 64}) {
        const int calls = kCalls / clients;
        const auto sending = [&](uint16_t port) {
            return LatencyOf(
                calls, [&bench, port] { SendBare(port, bench.file.data(), kSmall); }, clients);
        };
        const Latency through = sending(bridge);
        const Latency direct = sending(sink);
        const std::tuple<const char*, double, double> rows[] = {{"median", through.median, direct.median},
                                                                {"99th percentile", through.p99, direct.p99}};
        for (const auto& [name, seconds, beside] : rows) {
            bench.rows.push_back(
                {.name = "bridge: 1 KB, clients at once: " + std::to_string(clients) + ", " + name,
                 .unit = "us",
                 .value = seconds * 1e6,
                 .beside_name = "direct",
                 .beside = beside * 1e6,
                 .ratio = beside / seconds});
        }
    }
}

// Runs a command of the Unix system below and returns what it prints. Wine leaves the handles of such a one
// undefined, so there is none to wait for: its output goes to a connection, which ends with it.
std::string RunUnixCommand(const std::string& command) {
    uint16_t port = 0;
    const SOCKET listener = ListenOnLoopback(port);
    std::string line =
        "/bin/bash -c \"exec " + command + " >/dev/tcp/127.0.0.1/" + std::to_string(port) + "\"";
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION undefined;
    if (!CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                        &undefined)) {
        throw std::runtime_error(line + " does not start: error " + std::to_string(GetLastError()));
    }
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

// What scans cost the bridge, and the Wine server: sender and sink are beside Wine.
void MeasureProcessorTime(Bench& bench, const UnixPeer& peer) {
    struct {
        const char* name;
        int scans;
        size_t size;
        double units;  // what the seconds are divided by
        std::optional<double> most_in_bridge;
        std::optional<double> most_in_server;
    } static constexpr kRows[] = {{"a scan of 1 KB", 3000, kSmall, 3000, 350, 325},
                                  {"each MB", 20, 16'000'000, 320, {}, {}}};
    const BridgeProcess bridge(peer.sink);
    for (const auto& row : kRows) {
        struct {
            const char *where, *program;
            std::optional<double> most;
            double before;
        } sides[] = {{"the bridge", "bridge\\kestobridge.exe", row.most_in_bridge, 0},
                     {"the Wine server", "wineserver", row.most_in_server, 0}};
        for (auto& side : sides) {
            side.before = ProcessorSeconds(side.program);
        }
        const std::string said = RunUnixCommand(peer.sender + " " + std::to_string(bridge.Port()) + " " +
                                                std::to_string(row.scans) + " " + std::to_string(row.size));
        if (said != "done\n") {
            throw std::runtime_error("the bridge does not call a file clean");
        }
        for (const auto& side : sides) {
            bench.rows.push_back({.name = std::string("processor time of ") + row.name + " in " + side.where,
                                  .unit = "us",
                                  .value = (ProcessorSeconds(side.program) - side.before) / row.units * 1e6,
                                  .most = side.most,
                                  .explanation = "what it is for stands below"});
        }
    }
}

}  // namespace

void MeasureBridge(Bench& bench, uint16_t sink, const UnixPeer& peer) {
    const BridgeProcess bridge(sink);
    MeasureBridgeThroughput(bench, PluginCopy("through", bridge.Port(), true),
                            PluginCopy("encrypting", sink, true));
    MeasureSmallScans(bench, bridge.Port(), sink);
    MeasureOpenScans(bench, bridge);
    MeasureProcessorTime(bench, peer);
}

void MeasureDelayedAcknowledgements(Bench& bench, const UnixPeer& peer) {
    constexpr int kCalls = 40;
    const BridgeProcess bridge(peer.sink);
    const auto median = [&](uint16_t port) {
        const PluginCopy plugin("delayed", port, true);
        return LatencyOf(kCalls, [&] { plugin.Scan(bench.file.data(), kSmall); }).median * 1e6;
    };
    bench.rows.push_back({.name = "1 KB to a receiver that delays: bridge",
                          .unit = "us",
                          .value = median(bridge.Port()),
                          .beside_name = "direct",
                          .beside = median(peer.sink)});
}

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
