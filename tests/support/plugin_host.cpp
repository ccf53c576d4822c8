#include "tests/support/plugin_host.h"

#include <algorithm>
#include <stdexcept>

namespace kesto {
namespace {

PluginLibrary LoadOrThrow(const Installation& installed) {
    std::string error;
    if (const auto plugin = LoadPlugin((installed.folder / "CLAMDLL.dll").wstring(), error)) {
        return *plugin;
    }
    throw std::runtime_error(error);
}

// Whether the host's words that only an infected file changes are as they were.
bool ResultUntouched(const ScanOutcome& outcome) {
    return outcome.reserved == kUntouched && outcome.infected == kUntouched &&
           outcome.detection == ScanOutcome{.result = 0}.detection;
}

}  // namespace

LoadedPlugin::LoadedPlugin(const Installation& installed) : PluginLibrary(LoadOrThrow(installed)) {}

LoadedPlugin::~LoadedPlugin() {
    ClosePlugin(*this);
}

int32_t LoadedPlugin::Initialize(const std::filesystem::path& folder) const {
    return initialize_scanner(1, nullptr, nullptr, nullptr, folder.string().c_str());
}

std::string LoadedPlugin::VersionDetails() const {
    std::string text(4096, '\x5E');
    get_version_details(text.data(), static_cast<uint32_t>(text.size()));
    return text.back() == '\x5E' ? text.c_str() : "the buffer's last byte was written";
}

bool ScanOutcome::Clean() const {
    return result == 1 && error == kUntouched && ResultUntouched(*this);
}

bool ScanOutcome::Failed(uint32_t code) const {
    return result == 0 && error == code && ResultUntouched(*this);
}

bool ScanOutcome::Infected(std::string_view file_name, std::string_view virus_name) const {
    return result == 1 && error == kUntouched && reserved == kUntouched && infected == 1 &&
           detection.data() + kDetectionFileName == file_name &&
           detection.data() + kDetectionVirusName == virus_name &&
           detection.ends_with(std::string(16, '\x5E'));
}

void PrintTo(const ScanOutcome& outcome, std::ostream* out) {
    *out << "result " << outcome.result << " error " << outcome.error << " infected " << outcome.infected
         << " name " << outcome.detection.c_str() + kDetectionVirusName;
}

ScanOutcome ScanWith(const PluginLibrary& plugin, std::string_view data, std::string_view name) {
    ScanFileInput input = {};
    std::copy_n(name.data(), std::min(name.size(), sizeof input.name), input.name);
    input.size = static_cast<uint32_t>(data.size());
    input.data = reinterpret_cast<const uint8_t*>(data.data());
    ScanOutcome outcome = {};
    ScanFileResult result = {outcome.reserved, outcome.infected, outcome.detection.data()};
    outcome.result = plugin.scan_file(1, &input, &result, &outcome.error, 2, 3);
    outcome.reserved = result.reserved;
    outcome.infected = result.infected;
    return outcome;
}

}  // namespace kesto
