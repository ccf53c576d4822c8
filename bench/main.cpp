// The measurements, in the order of the table. Each figure is the median of several rounds, and where two
// sides are compared, both run in each round, in turns.
//
//   byte shift        the encrypt setting's loop, in chunks as scans use it, against memcpy
//   process walk      the search for the engine process, without one, among 20, 100 and 300 processes
//   scan              SCANFILE against a sender of the same bytes in the same sends, to the same sink
//                     engine: 1 KB to 128 MB, encrypt on and off
//   calling threads   the same with 1, 2, 4 and 8 threads at once
//   one call          a small scan, and its parts: process walk, connect, exchange
//   growth, left      memory taken by a scan of 256 MB; handles and sockets left by 10,000 scans
//   host              kestoscan over 2,000 files of 5 KB
//   bridge            scans through the bridge against direct ones: throughput, small scans with 1, 8 and 64
//                     clients, processor time, memory with 200 scans under way
//   delay             a small scan to a receiver that delays its acknowledgements, direct and through the
//                     bridge
//   clamd             a real clamd's files a second, beside clamd's own client
//
// The sink engine and the processes that fill the process list are this program, started again.
#include <windows.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "bench/bench.h"
#include "bench/child_process.h"
#include "bench/sink_engine.h"
#include "bench/wire.h"
#include "tests/loopback/loopback.h"

namespace kesto {
namespace {

void FillWithNoise(std::vector<uint8_t>& bytes) {
    uint32_t state = 1;
    for (uint8_t& byte : bytes) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<uint8_t>(state >> 24);
    }
}

struct Options {
    int rounds = 9;
    std::string only;
    std::string json = "bench.json";
    UnixPeer unix_peer;
    uint16_t clamd = 0;
    std::string clamdscan;
};

void Measure(const Options& options) {
    Bench bench = {.rounds = options.rounds, .file = std::vector<uint8_t>(256 * 1024 * 1024), .rows = {}};
    FillWithNoise(bench.file);
    const std::filesystem::path engine = "kestoav.exe";
    CopyFileW((ProgramFolder() / "bench.exe").c_str(), engine.c_str(), FALSE);
    auto run = [&](const char* group, auto measure) {
        if (options.only.empty() || options.only == group) {
            measure();
        }
    };
    run("shift", [&] { MeasureShift(bench); });
    run("walk", [&] { MeasureProcessWalks(bench); });
    const uint16_t sink = FreePort();
    const ChildProcess sink_engine(engine, "sink " + std::to_string(sink));
    WaitForListener(sink);
    run("scan", [&] { MeasureScans(bench, sink); });
    run("threads", [&] { MeasureThreads(bench, sink); });
    run("call", [&] { MeasureCall(bench, sink); });
    run("memory", [&] { MeasureMemory(bench, sink); });
    run("host", [&] { MeasureHost(bench, sink); });
    run("bridge", [&] { MeasureBridge(bench, sink, options.unix_peer); });
    run("delay", [&] { MeasureDelayedAcknowledgements(bench, options.unix_peer); });
    run("clamd", [&] { MeasureClamd(bench, options.clamd, options.clamdscan); });
    WriteTable(std::cout, bench.rows);
    std::ofstream json(options.json);
    WriteJson(json, bench.rows);
}

}  // namespace

}  // namespace kesto

int main(int argc, char** argv) {
    try {
        CLI::App app("Measures the plug-in and the bridge; works in the current folder");
        kesto::Options options;
        app.add_option("--rounds", options.rounds, "Rounds a comparison");
        app.add_option("--only", options.only,
                       "One group: shift, walk, scan, threads, call, memory, host, bridge, delay, clamd");
        app.add_option("--json", options.json, "Where to write the figures");
        app.add_option("--unix-sink", options.unix_peer.sink, "The port of a sink beside Wine");
        app.add_option("--unix-sender", options.unix_peer.sender, "The command line of a sender");
        app.add_option("--clamd", options.clamd, "The port of a clamd");
        app.add_option("--clamdscan", options.clamdscan, "The command line of clamd's client");
        uint16_t port = 0;
        CLI::App* sink = app.add_subcommand("sink", "Serves as the sink engine");
        sink->add_option("port", port)->required();
        CLI::App* idle = app.add_subcommand("idle", "Waits");
        CLI11_PARSE(app, argc, argv);
        if (sink->parsed()) {
            return kesto::ServeSink(port);
        }
        if (idle->parsed()) {
            Sleep(INFINITE);
        }
        kesto::Measure(options);
        return 0;
    } catch (const std::exception& failure) {
        std::cerr << "bench: " << failure.what() << '\n';
        return 1;
    }
}
