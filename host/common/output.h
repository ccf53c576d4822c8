#pragma once

#include <mutex>
#include <string>
#include <string_view>

#include "common/fault.h"

// Everything the program prints passes here, whole lines only: UTF-8 when redirected, UTF-16 to a
// terminal, and never mixed with the progress line. Callable from any thread.
namespace kesto::host {

void PrintOut(std::string_view lines);
void PrintError(std::string_view lines);

// From now on appends all that is printed, as UTF-8, to this file as well, below a line with the time.
Fault PrintToFileToo(const std::wstring& path);

// Standard output or that file could not be written (a full disk, a closed pipe).
Fault OutputFault();

// A terminal on standard error; only there is a progress line drawn. It vanishes when a line is printed.
bool ProgressShown();
void DrawProgress(std::string_view line);
void ClearProgress();

// Held while a line is written. Whoever ends the process at once takes it first, and keeps it.
std::recursive_mutex& OutputLock();

}  // namespace kesto::host
