// The bridge's log file: lines like the plug-in's, local time in front.
#pragma once

#include <string>

namespace kesto {

// Opens the file for appending. With only_if_present a missing file leaves logging off. False when a file
// that should be written cannot be opened.
bool OpenBridgeLog(const std::string& path, bool only_if_present);

// Writes one line and flushes; does nothing while no log is open. What came from a peer may be part of the
// message: control characters are replaced, and the line ends after 999 characters.
void LogBridge(const std::string& message);

}  // namespace kesto
