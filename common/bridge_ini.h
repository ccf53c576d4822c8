// The bridge.ini beside the program, and the paths of the logs.
#pragma once

#include <string>
#include <vector>

#include "common/bridge_settings.h"

namespace kesto {

// How the line of the log begins in which guard or bridge tells why it ends at once.
inline constexpr char kCannotStart[] = "cannot start - ";

std::wstring BridgeIniPath(const std::wstring& program_folder);

// Without the file every setting has its default. `listens`: see ReadBridgeSettings.
BridgeIni ReadBridgeIni(const std::wstring& program_folder, const std::optional<ServerAddress>& listens = {});

// Where no path is set, the log is written only if it exists.
std::wstring BridgeLogPath(const BridgeSettings& settings, const std::wstring& program_folder);

// The log of the updater, beside the bridge's log. It is always written.
std::wstring UpdateLogPath(const BridgeSettings& settings, const std::wstring& program_folder);

// The addresses of this machine, for ReadBridgeSettings.
std::vector<ServerAddress> OwnAddresses();

}  // namespace kesto
