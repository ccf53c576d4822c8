// Starts a program of the engine folder, hidden and without arguments.
#pragma once

#include <windows.h>

namespace kesto {

// Starts `program` (a bare file name) in the engine folder, which is also its working folder. Returns 0
// and fills `started`, whose two handles are then the caller's, or returns the system error code.
DWORD StartHiddenProgram(const char* program, PROCESS_INFORMATION& started);

}  // namespace kesto
