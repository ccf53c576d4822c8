// The administrator's own updater.
#pragma once

#include <cstdint>
#include <string>

namespace kesto::updater {

// Runs a command line hidden in this folder, for at most so many seconds. What it writes goes into the log, a
// file, as it is. Returns its exit code, or the system's error code when it could not be started or took too
// long.
uint32_t RunCommand(const std::string& command, const std::wstring& folder, unsigned seconds,
                    const std::wstring& log);

}  // namespace kesto::updater
