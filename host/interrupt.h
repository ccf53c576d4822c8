// Ctrl-C, Ctrl-Break and the closing of the console.
#pragma once

#include <functional>

namespace kesto::host {

// From now on these end the process at once, but not within a line: a scan may wait minutes for its engine,
// so nothing is waited for but the output, and that for 2 seconds at most.
void WatchForInterrupt();

// Prints what is still to be told then and returns the exit status, which is otherwise kExitError. Called
// under OutputLock, at most once; set it under OutputLock.
void SetLastWords(std::function<int()> last_words);

}  // namespace kesto::host
