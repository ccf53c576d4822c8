#include "bench/plugin_copy.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace kesto {

PluginCopy::PluginCopy(const std::string& name, uint16_t port, bool encrypt) {
    const std::filesystem::path folder = std::filesystem::current_path() / name;
    const std::filesystem::path library = folder / "CLAMDLL.dll";
    std::filesystem::create_directory(folder);
    CopyFileW((ProgramFolder() / "../CLAMDLL.dll").c_str(), library.c_str(), FALSE);
    std::ofstream(folder / "kestoav.ini")
        << "[kestoav]\nservers=127.0.0.1:" << port << "\nencrypt=" << encrypt << "\nautostart=0\n";
    bool without_engine = false;
    Fault fault = LoadPlugin(library.wstring(), plugin_);
    if (!fault) {
        fault = StartPlugin(plugin_, folder.wstring(), without_engine);
    }
    if (fault) {
        throw std::runtime_error(fault.text);
    }
}

PluginCopy::~PluginCopy() {
    ClosePlugin(plugin_);
}

void PluginCopy::Scan(const uint8_t* data, size_t size) const {
    const ScanFileInput input = {"bench.bin", static_cast<uint32_t>(size), data};
    char detection[kDetectionSize] = {};
    ScanFileResult result = {0, 0, detection};
    uint32_t error = 0;
    if (plugin_.scan_file(1, &input, &result, &error, 0, 0) != 1 || result.infected != 0) {
        throw std::runtime_error("SCANFILE does not find the file clean: code " + std::to_string(error));
    }
}

}  // namespace kesto
