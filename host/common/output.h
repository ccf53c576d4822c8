// All output of the program goes through here, in whole lines: as UTF-8 when redirected, as UTF-16 to a
// terminal, and never mixed with the progress line. Any thread may call these functions.
#pragma once

#include <mutex>
#include <string>
#include <string_view>

#include "common/fault.h"

namespace kesto::host {

// The exit status of the program, as users of scanners expect it.
inline constexpr int kExitClean = 0;
inline constexpr int kExitInfected = 1;  // even if there was an error as well
inline constexpr int kExitError = 2;     // also: wrong usage, interrupted

void PrintOut(std::string_view lines);
void PrintError(std::string_view lines);

// Prints what is wrong, in one line or more, as kestoscan's words. Returns kExitError.
int Complain(const std::string& words);

// From now on all output is also appended to this file, as UTF-8, below a line with the time.
Fault PrintToFileToo(const std::wstring& path);

// Why standard output or that file could not be written to (a full disk, a closed pipe).
Fault OutputFault();

// Whether standard error is a terminal. A progress line is drawn only there, and vanishes when a line is
// printed.
bool ProgressShown();
void DrawProgress(std::string_view line);
void ClearProgress();

// Held while a line is written. It also guards all that changes in a scan run. Whoever ends the process at
// once takes the lock first, and keeps it.
std::recursive_mutex& OutputLock();

}  // namespace kesto::host
