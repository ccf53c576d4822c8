// bridge.ini as it lies beside the program, and where the bridge's log is.
#pragma once

#include <string>
#include <vector>

#include "common/bridge_settings.h"

namespace kesto {

// How the line of its log begins that says why it ends at once.
inline constexpr char kCannotStart[] = "cannot start - ";

struct BridgeIni {
    BridgeSettings settings;
    std::vector<std::string> problems;          // in the bridge's words; not empty: it does not start
    std::vector<std::string> updater_problems;  // the updater does nothing
    bool readable = true;                       // otherwise that is the problem; another program may have it open
    std::wstring log_path;                      // also with problems
    bool log_only_if_present;                   // no path is set: the file is used if it exists
};

// A missing file means that every setting has its default.
BridgeIni ReadBridgeIni(const std::wstring& program_folder);

// The log that is used where no path is set, or where that one cannot be written.
std::wstring DefaultBridgeLog(const std::wstring& program_folder);

// When bridge.ini was written last, and its size: differs where the file has changed. All 0 without a file.
struct FileStamp {
    uint64_t written = 0;
    uint64_t size = 0;
    bool operator==(const FileStamp&) const = default;
};
FileStamp BridgeIniStamp(const std::wstring& program_folder);

// The log of the updater, beside the bridge's. It is always written.
std::wstring UpdateLogPath(const BridgeIni& ini);

// Addresses of this machine, for ReadBridgeSettings.
std::vector<ServerAddress> OwnAddresses();

}  // namespace kesto
