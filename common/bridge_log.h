// The log file of guard and bridge, and that of the updater, with lines like the plug-in's.
#pragma once

#include <string>

#include "common/bridge_settings.h"

namespace kesto {

// From now on lines go to the log that the settings name, or to the default log if that cannot be written;
// then it returns what is wrong, to be logged. The file is opened for each line, so that it can be moved away
// at any time and several processes can write to it.
std::string UseBridgeLog(const BridgeSettings& settings, const std::wstring& program_folder);

// From now on lines go to this file, whether or not it exists. False, with the system's error code set, when
// it cannot be written.
bool UseLog(const std::wstring& path);

// The log as the output of a program that inherits the handle. The caller owns it; it is null, with the
// system's error code set, when the file cannot be written.
void* InheritedLog();

// Writes one line; does nothing while logging is off. Of each kind, which is not part of the line, ten lines
// a minute are written. The message may hold text from a peer: control characters are replaced, and the line
// ends after 999 characters. A line for which there is no memory is left out.
void LogBridge(const std::string& kind, const std::string& message) noexcept;

// Tells how many lines were left out. To be called now and then.
void LogLeftOut();

}  // namespace kesto
