// What the program's exit status tells, as users of scanners expect.
#pragma once

namespace kesto::host {

inline constexpr int kExitClean = 0;
inline constexpr int kExitInfected = 1;  // wins over an error elsewhere in the same run
inline constexpr int kExitError = 2;     // also: wrong usage, interrupted

}  // namespace kesto::host
