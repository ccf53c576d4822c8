// The bridge's log file: lines like the plug-in's, local time in front.
#pragma once

#include <string>

namespace kesto::bridge {

// Lines go to this file from now on; opened anew for each, so that it can be moved away at any time. With
// only_if_present a missing file leaves logging off. False when a file that should be written cannot be.
bool UseBridgeLog(const std::wstring& path, bool only_if_present);

// Writes one line; does nothing while logging is off. Of each kind, which is part of no line, ten a minute
// are written. What came from a peer may be part of the message: control characters are replaced, and the
// line ends after 999 characters.
void LogBridge(const std::string& kind, const std::string& message);

// To be called every now and then: tells of lines that were left out.
void LogLeftOut();

}  // namespace kesto::bridge
