// The measurements, in the order of the table. Each figure is the median of several rounds, and where two
// sides are compared, both run in each round, in turns.
//
//   shift     the encrypt setting's loop, in chunks as scans use it, against memcpy
//   scan      SCANFILE against a sender of the same bytes in the same sends, to the same sink:
//             1 KB to 128 MB, encrypt on and off
//   memory    that a scan of 256 MB takes
//   host      kestoscan over 2,000 files of 5 KB, against SCANFILE alone
//   bridge    scans through the bridge against direct ones: throughput, small scans with 1, 8 and 64 clients;
//             memory with 200 scans under way
//
// The sink is this program, started again under the engine's name.
#include <CLI/CLI.hpp>
#include <iostream>

#include "bench/bench.h"
#include "bench/sink.h"
#include "bench/wire.h"

namespace kesto {
namespace {

// Without a byte of 0 or of 1: see sink.cpp.
std::string Noise(size_t size) {
    std::string bytes(size, '\0');
    uint32_t state = 1;
    for (char& byte : bytes) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<char>(state >> 24 | 2);
    }
    return bytes;
}

struct Options {
    int rounds = 9;
    std::string only;
};

void Measure(const Options& options) {
    Bench bench = {.rounds = options.rounds, .file = Noise(256 << 20), .rows = {}};
    const uint16_t port = FreePort();
    const Installation sink;
    std::filesystem::copy_file(BuiltFolder() / "bench" / "bench.exe", sink.elsewhere);
    const ProgramRun serving(sink.elsewhere, L"sink " + std::to_wstring(port));
    WaitForListener(port);
    const std::pair<const char*, std::function<void()>> groups[] = {
        {"shift", [&] { MeasureShift(bench); }},         {"scan", [&] { MeasureScans(bench, port); }},
        {"memory", [&] { MeasureMemory(bench, port); }}, {"host", [&] { MeasureHost(bench, port); }},
        {"bridge", [&] { MeasureBridge(bench, port); }},
    };
    for (const auto& [name, measure] : groups) {
        if (options.only.empty() || options.only == name) {
            std::cerr << "bench: " << name << '\n';
            measure();
        }
    }
    WriteTable(std::cout, bench.rows);
}

}  // namespace
}  // namespace kesto

int main(int argc, char** argv) {
    try {
        CLI::App app("Measures the plug-in and the bridge; works in the current folder");
        kesto::Options options;
        app.add_option("--rounds", options.rounds, "Rounds a comparison");
        app.add_option("--only", options.only, "One group of the list in bench/main.cpp");
        uint16_t port = 0;
        CLI::App* sink = app.add_subcommand("sink", "Serves as the sink");
        sink->add_option("port", port)->required();
        CLI11_PARSE(app, argc, argv);
        sink->parsed() ? kesto::ServeSink(port) : kesto::Measure(options);
        return 0;
    } catch (const std::exception& failure) {
        std::cerr << "bench: " << failure.what() << '\n';
        return 1;
    }
}
