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
    std::vector<std::string> problems;  // in the bridge's words; not empty: it does not start
    bool readable = true;               // otherwise that is the problem
    std::wstring log_path;              // also with problems
    bool log_only_if_present;           // no path is set: the file is used if it exists
};

// A missing file means that every setting has its default.
BridgeIni ReadBridgeIni(const std::wstring& program_folder);

// The log that is used where no path is set, or where that one cannot be written.
std::wstring DefaultBridgeLog(const std::wstring& program_folder);

// Addresses of this machine, for ReadBridgeSettings.
std::vector<ServerAddress> OwnAddresses();

}  // namespace kesto
