// The log file of guard and bridge: lines like the plug-in's, local time in front.
#pragma once

#include <string>

#include "common/bridge_ini.h"

namespace kesto {

// Lines go to the log that the settings name from now on, or, where that cannot be written, to the default
// one; then returns what is wrong, to be logged. It is opened anew for each line, so that it can be moved
// away at any time, and may be written by several processes.
std::string UseBridgeLog(const BridgeIni& ini, const std::wstring& program_folder);

// Writes one line; does nothing while logging is off. Of each kind, which is part of no line, ten a minute
// are written. What came from a peer may be part of the message: control characters are replaced, and the
// line ends after 999 characters. A line for which there is no memory is left out.
void LogBridge(const std::string& kind, const std::string& message) noexcept;

// To be called every now and then: tells of lines that were left out.
void LogLeftOut();

}  // namespace kesto
