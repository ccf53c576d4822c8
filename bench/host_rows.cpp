// The command-line host, which lists and reads files and prints verdicts, beside the scans alone.
#include <stdexcept>

#include "bench/bench.h"
#include "bench/timing.h"

namespace kesto {

void MeasureHost(Bench& bench, uint16_t sink) {
    constexpr size_t kFiles = 2000;
    const StartedPlugin plugin(sink);
    const auto data = [&](size_t i) { return std::string_view(bench.file).substr(i, 5000); };
    const std::filesystem::path files = plugin.installed.top / "many";
    std::filesystem::create_directory(files);
    for (size_t i = 0; i < kFiles; ++i) {
        WriteFile(files / (std::to_string(i) + ".eml"), data(i));
    }
    const Comparison times = Compare(
        bench.rounds,
        [&] {
            const ProgramRun run(plugin.installed.folder / "kestoscan.exe",
                                 L"--no-summary --infected --recursive many", plugin.installed.top);
            if (const std::string told = run.Told(); !told.starts_with("0: ")) {
                throw std::runtime_error("kestoscan does not find the files clean: " + told);
            }
        },
        [&] {
            for (size_t i = 0; i < kFiles; ++i) {
                plugin.Scan(data(i));
            }
        });
    bench.rows.push_back({.name = "kestoscan, 2,000 files of 5 KB",
                          .unit = "files/s",
                          .value = kFiles / times.seconds,
                          .beside_name = "scans alone",
                          .beside = kFiles / times.beside_seconds,
                          .ratio = times.speed,
                          .least_ratio = 0.8});
}

}  // namespace kesto
