// All output of the program goes through here, in whole lines: as UTF-8 when redirected, as UTF-16 to a
// terminal, and never mixed with the progress line. Any thread may call these functions.
#pragma once

#include <mutex>
#include <string>
#include <string_view>

#include "common/fault.h"

namespace kesto::host {

void PrintOut(std::string_view lines);
void PrintError(std::string_view lines);

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
