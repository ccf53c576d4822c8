// The plug-in as its host drives it.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "host/common/plugin_library.h"
#include "tests/support/installation.h"
#include "tests/support/scripted_engine.h"

namespace kesto {
using namespace host;

// The library of an installation, newly loaded, so that nothing in it was used before.
struct LoadedPlugin : PluginLibrary {
    explicit LoadedPlugin(const Installation& installed);
    // INITIALIZESCANNER with this folder, version 1 and no buffers.
    int32_t Initialize(const std::filesystem::path& folder) const;
    // GETVERSIONDETAILS with a buffer that is large enough.
    std::string VersionDetails() const;
};

inline constexpr uint32_t kUntouched = 0x5EED5EED;  // what the host's words hold before a call

// Expects that `fault` loses no handles, sockets among them, and no bytes of the heap that the process shares
// with the plug-in: runs it once for what is made only once, and then often enough for a loss to show.
void ExpectNothingLost(int rounds, const std::function<void()>& fault);

// An installation with the plug-in loaded from it.
struct InstalledPlugin {
    // Writes the settings and starts the plug-in with them, version 1 and no buffers.
    int32_t Start(const std::string& settings) {
        plugin.close_scanner();  // a second start would leave an open log open
        installed.WriteSettings(settings);
        return plugin.Initialize(installed.folder);
    }
    // Scans as the host does. A name of 256 characters or more fills its field without a NUL. Returns what
    // the scan left behind in the host's memory: "clean", "failed CODE" or "FILE NAME: VIRUS NAME".
    std::string Scan(std::string_view data, std::string_view name = "mail.eml") const;

    Installation installed;
    LoadedPlugin plugin{installed};
};

// A "servers" line that names these ports of 127.0.0.1 in order.
template <class... Ports>
std::string Servers(Ports... ports) {
    std::string line = "servers=";
    ((line += "127.0.0.1:" + std::to_string(ports) + " "), ...);
    line.back() = '\n';
    return line;
}

}  // namespace kesto
