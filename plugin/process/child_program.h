// Starts a program of the engine folder, hidden and without arguments.
#pragma once

#include <windows.h>

namespace kesto {

// Starts `program` (a bare file name) in the engine folder, which is also its working folder. Returns whether
// it was started. If so, `started` is filled in, and the caller owns its two handles; if not, `error` is the
// system error code, which may be 0.
bool StartHiddenProgram(const char* program, PROCESS_INFORMATION& started, DWORD& error);

}  // namespace kesto
