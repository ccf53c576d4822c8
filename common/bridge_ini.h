// The bridge.ini beside the program, and the path of the bridge's log.
#pragma once

#include <string>
#include <vector>

#include "common/bridge_settings.h"

namespace kesto {

// The beginning of the line of its log that tells why it ends at once.
inline constexpr char kCannotStart[] = "cannot start - ";

struct BridgeIni {
    BridgeSettings settings;
    std::vector<std::string> problems;          // in words; with any of these the bridge does not start
    std::vector<std::string> updater_problems;  // with any of these the updater does nothing
    bool readable = true;      // false: that is the problem; another program may have it open
    std::wstring log_path;     // valid even with problems
    bool log_only_if_present;  // no path is set: the file is used if it exists
};

// Without the file every setting has its default.
BridgeIni ReadBridgeIni(const std::wstring& program_folder);

// The log that is used when no path is set, or when that one cannot be written.
std::wstring DefaultBridgeLog(const std::wstring& program_folder);

// When bridge.ini was last written, and its size; they differ after a change. All 0 without a file.
struct FileStamp {
    uint64_t written = 0;
    uint64_t size = 0;
    bool operator==(const FileStamp&) const = default;
};
FileStamp BridgeIniStamp(const std::wstring& program_folder);

// The log of the updater, beside the bridge's log. It is always written.
std::wstring UpdateLogPath(const BridgeIni& ini);

// The addresses of this machine, for ReadBridgeSettings.
std::vector<ServerAddress> OwnAddresses();

}  // namespace kesto
