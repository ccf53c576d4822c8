// Where the running program lies.
#pragma once

#include <string>

namespace kesto {

// Absolute, without a backslash at its end.
std::wstring ProgramFolder();

}  // namespace kesto
