// The exit status of the program, as users of scanners expect it.
#pragma once

namespace kesto::host {

inline constexpr int kExitClean = 0;
inline constexpr int kExitInfected = 1;  // even if there was an error as well
inline constexpr int kExitError = 2;     // also: wrong usage, interrupted

}  // namespace kesto::host
