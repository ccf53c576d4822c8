// Starts a program of the engine folder, hidden and without arguments.
#pragma once

#include <windows.h>

namespace kesto {

// Starts `program` (a bare file name) in the engine folder, which is also its working folder. Returns whether
// it was started: then `started` is filled, and its two handles are the caller's. Otherwise `error` is the
// system error code, which may be 0.
bool StartHiddenProgram(const char* program, PROCESS_INFORMATION& started, DWORD& error);

}  // namespace kesto
