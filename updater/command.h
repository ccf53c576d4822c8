// The administrator's own updater.
#pragma once

#include <cstdint>
#include <string>

namespace kesto::updater {

// Runs a command line hidden in this folder, for at most so many seconds, and writes its output into the log.
// Returns its exit code, or the system's error code: it could not be started, or was ended by us.
uint32_t RunCommand(const std::string& command, const std::wstring& folder, unsigned seconds);

}  // namespace kesto::updater
