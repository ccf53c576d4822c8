// The folder of the running program.
#pragma once

#include <string>

namespace kesto {

// Absolute, without a backslash at its end.
std::wstring ProgramFolder();

}  // namespace kesto
