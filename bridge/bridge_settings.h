// bridge.ini beside the program, section [bridge]. Every key may be missing; a file that says something the
// bridge cannot follow to the letter is refused, because a guess could let mail through unscanned.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "bridge/upstreams.h"

namespace kesto {

struct BridgeSettings {
    std::string listen_host;  // numeric IPv4
    uint16_t listen_port = 0;
    std::vector<Upstream> upstreams;  // never empty
    bool decrypt = true;
    std::chrono::seconds idle{};
    std::string log_path;
    bool log_only_if_present = true;  // no path was set: the default file is used if it exists
};

// Returns the problem in words for the administrator, or an empty text. The log path is filled even then.
std::string ReadBridgeSettings(const std::string& program_folder, BridgeSettings& settings);

// Folder of the running program, in the ANSI code page, without a backslash at its end.
std::string ProgramFolder();

}  // namespace kesto
