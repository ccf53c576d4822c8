// What the bridge costs between a plug-in and its engine.
#include <stdexcept>
#include <tuple>
#include <vector>

#include "base/clamd_words.h"
#include "bench/bench.h"
#include "bench/timing.h"
#include "bench/wire.h"

namespace kesto {
namespace {

constexpr size_t kSmall = 1000;

// File data that the bridge has taken in so far, in bytes.
double BytesTaken(uint16_t bridge) {
    constexpr std::string_view kName = "\nkestoav_bytes_total ";
    const std::string numbers = Ask(bridge, std::string(kStatsCommand));
    return std::stod(numbers.substr(numbers.find(kName) + kName.size()));
}

// Scans of which all but the end has been sent: the bridge keeps each, so that it can be repeated.
void MeasureOpenScans(Bench& bench, const StartedBridge& bridge) {
    constexpr size_t kScans = 200, kSize = 1'000'000;
    constexpr double kKeptKilobytes = 128 * 1024, kBesideKilobytes = 10 * 1024;
    const double before = bridge.WorkingSetKilobytes();
    const double all_taken = BytesTaken(bridge.port) + double{kScans} * kSize;
    std::vector<tcp::socket> connections;
    for (size_t i = 0; i < kScans; ++i) {
        connections.push_back(ConnectTo(bridge.port));
        SendAll(connections.back(), kScanCommand);
        SendLength(connections.back(), kSize);
        SendAll(connections.back(), std::string_view(bench.file).substr(0, kSize));
    }
    if (!WaitFor([&] { return BytesTaken(bridge.port) >= all_taken; })) {
        throw std::runtime_error("the bridge does not take in what it is sent");
    }
    bench.rows.push_back({.name = "bridge: memory for 200 scans of 1 MB under way",
                          .unit = "KB",
                          .value = bridge.WorkingSetKilobytes() - before,
                          .most = kKeptKilobytes + kBesideKilobytes});
}

void MeasureBridgeThroughput(Bench& bench, const StartedPlugin& through, const StartedPlugin& direct) {
    const auto data = std::string_view(bench.file).substr(0, 16'000'000);
    const std::pair<int, double> rows[] = {{1, 0.8}, {8, 0.9}};
    for (const auto& [connections, least_ratio] : rows) {
        const Comparison times = Compare(
            bench.rounds, [&] { through.Scan(data); }, [&] { direct.Scan(data); }, connections);
        const double megabytes = static_cast<double>(data.size()) / 1e6 * connections;
        bench.rows.push_back({.name = "bridge: 16 MB, connections at once: " + std::to_string(connections),
                              .unit = "MB/s",
                              .value = megabytes / times.seconds,
                              .beside_name = "direct",
                              .beside = megabytes / times.beside_seconds,
                              .ratio = times.speed,
                              .least_ratio = least_ratio});
    }
}

// Bare senders: the plug-in's walk of the process table would take most of the time on both sides.
void MeasureSmallScans(Bench& bench, uint16_t bridge, uint16_t sink) {
    for (int clients : {1, 8, 64}) {
        const auto sending = [&](uint16_t port) {
            return LatencyOf(
                2000 / clients, [&] { SendBare(port, std::string_view(bench.file).substr(0, kSmall)); },
                clients);
        };
        const Latency through = sending(bridge), direct = sending(sink);
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

}  // namespace

void MeasureBridge(Bench& bench, uint16_t sink) {
    const StartedBridge bridge(sink);
    MeasureBridgeThroughput(bench, StartedPlugin(bridge.port), StartedPlugin(sink));
    MeasureSmallScans(bench, bridge.port, sink);
    MeasureOpenScans(bench, bridge);
}

}  // namespace kesto
