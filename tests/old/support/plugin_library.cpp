#include "tests/support/plugin_library.h"

#include <algorithm>
#include <stdexcept>

namespace kesto {
namespace {

template <class Routine>
void Take(HMODULE module, const char* name, Routine& routine) {
    routine = reinterpret_cast<Routine>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    if (routine == nullptr) {
        throw std::runtime_error(std::string(name) + " is not exported");
    }
}

// Whether the host's words that only an infected file changes are as they were.
bool ResultUntouched(const ScanOutcome& outcome) {
    return outcome.reserved == kUntouched && outcome.infected == kUntouched &&
           outcome.detection == ScanOutcome{.result = 0}.detection;
}

}  // namespace

std::string TestProgramFolder() {
    char path[MAX_PATH];
    const std::string program(path, GetModuleFileNameA(nullptr, path, sizeof path));
    return program.substr(0, program.rfind('\\'));
}

PluginLibrary::PluginLibrary() : module(LoadLibraryA((TestProgramFolder() + "\\..\\CLAMDLL.dll").c_str())) {
    if (module == nullptr) {
        throw std::runtime_error("CLAMDLL.dll does not load: error " + std::to_string(GetLastError()));
    }
    Take(module, "INITIALIZESCANNER", InitializeScanner);
    Take(module, "CLOSESCANNER", CloseScanner);
    Take(module, "ISFATALERROR", IsFatalError);
    Take(module, "GETERRORTEXT", GetErrorText);
    Take(module, "SCANFILE", ScanFile);
    Take(module, "DOSIMPLEUPDATE", DoSimpleUpdate);
    Take(module, "GETVERSIONDETAILS", GetVersionDetails);
    Take(module, "GETEXPIRY", GetExpiry);
    Take(module, "_GetExpiry2@20", GetExpiry2);
}

PluginLibrary::~PluginLibrary() {
    CloseScanner();
    FreeLibrary(module);
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

ScanOutcome ScanWith(const PluginLibrary& plugin, std::string_view data, std::string_view name) {
    ScanFileInput input{};
    std::copy_n(name.data(), std::min(name.size(), sizeof input.name), input.name);
    input.size = static_cast<uint32_t>(data.size());
    input.data = reinterpret_cast<const uint8_t*>(data.data());
    ScanOutcome outcome{};
    ScanFileResult result{outcome.reserved, outcome.infected, outcome.detection.data()};
    outcome.result = plugin.ScanFile(1, &input, &result, &outcome.error, 2, 3);
    outcome.reserved = result.reserved;
    outcome.infected = result.infected;
    return outcome;
}

}  // namespace kesto
