// The administrator's own updater.
#pragma once

#include <cstdint>
#include <string>

namespace kesto::updater {

// Runs a command line hidden in this folder, for at most so many seconds, and writes its output to the log.
// Returns its exit code, or the system's error code when it could not be started or took too long.
uint32_t RunCommand(const std::string& command, const std::wstring& folder, unsigned seconds);

}  // namespace kesto::updater
