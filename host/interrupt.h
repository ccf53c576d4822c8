// Ctrl-C, Ctrl-Break and the closing of the console.
#pragma once

#include <functional>

namespace kesto::host {

// From now on these end the process at once, but not in the middle of a line. Since a scan may wait minutes
// for its engine, only the output is waited for, for 2 seconds at most.
void WatchForInterrupt();

// Prints what remains to be told and returns the exit status; without it that is kExitError. It is called
// under OutputLock, at most once; set it under OutputLock.
void SetLastWords(std::function<int()> last_words);

}  // namespace kesto::host
