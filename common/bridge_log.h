// The log file of guard and bridge, with lines like the plug-in's, which begin with the local time.
#pragma once

#include <string>

#include "common/bridge_ini.h"

namespace kesto {

// From now on lines go to the log that the settings name, or to the default log if that cannot be written;
// then it returns what is wrong, to be logged. The file is opened for each line, so that it can be moved away
// at any time and several processes can write to it.
std::string UseBridgeLog(const BridgeIni& ini, const std::wstring& program_folder);

// Writes one line; does nothing while logging is off. Of each kind, which is not part of the line, ten lines
// a minute are written. The message may hold text from a peer: control characters are replaced, and the line
// ends after 999 characters. A line for which there is no memory is left out.
void LogBridge(const std::string& kind, const std::string& message) noexcept;

// Tells how many lines were left out. To be called now and then.
void LogLeftOut();

}  // namespace kesto
