// The command-line host, which reads files and prints verdicts, beside the least that could be done.
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "bench/bench.h"
#include "bench/child_process.h"
#include "bench/plugin_copy.h"
#include "bench/timing.h"
#include "bench/wire.h"
#include "plugin/process/engine_process.h"

namespace kesto {

void MeasureHost(Bench& bench, uint16_t sink) {
    constexpr int kFiles = 2000;
    constexpr size_t kSize = 5000;
    const std::filesystem::path files = std::filesystem::current_path() / "many";
    std::filesystem::create_directory(files);
    for (int i = 0; i < kFiles; ++i) {
        std::ofstream(files / (std::to_string(i) + ".eml"), std::ios::binary)
            .write(reinterpret_cast<const char*>(bench.file.data()) + i, kSize);
    }
    const PluginCopy installed("host", sink, true);
    const std::string arguments =
        "--no-summary --infected --library host\\CLAMDLL.dll --folder host --recursive many";
    const Comparison times = Compare(
        bench.rounds,
        [&] {
            if (ChildProcess(ProgramFolder() / "../kestoscan.exe", arguments).WaitForEnd() != 0) {
                throw std::runtime_error("kestoscan does not find the files clean");
            }
        },
        [&] {
            for (int i = 0; i < kFiles; ++i) {
                FindEngineProcess();
                SendBare(sink, bench.file.data() + i, kSize);
            }
        });
    bench.rows.push_back({.name = "kestoscan, 2,000 files of 5 KB",
                          .unit = "files/s",
                          .value = kFiles / times.seconds,
                          .beside_name = "bare sender and walk",
                          .beside = kFiles / times.beside_seconds,
                          .ratio = times.speed,
                          .least_ratio = 0.8,
                          .explanation = "listing, opening and reading the files come on top"});
}

}  // namespace kesto
