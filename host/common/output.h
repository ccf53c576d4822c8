#pragma once

#include <mutex>
#include <string_view>

// Everything the program prints passes here, whole lines only: UTF-8 when redirected, UTF-16 to a
// terminal, and never mixed with the progress line. Callable from any thread.
namespace kesto {

void PrintOut(std::string_view lines);
void PrintError(std::string_view lines);

// True once a write to standard output has failed (a full disk, a closed pipe).
bool OutputFailed();

// A terminal on standard error; only there is a progress line drawn. It vanishes when a line is printed.
bool ProgressShown();
void DrawProgress(std::string_view line);
void ClearProgress();

// Held while a line is written. Whoever ends the process at once takes it first, and keeps it.
std::recursive_mutex& OutputLock();

}  // namespace kesto
