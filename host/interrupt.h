// Ctrl-C, Ctrl-Break and the closing of the console.
#pragma once

#include <functional>

namespace kesto::host {

// From now on these end the process at once with kExitError, but not within a line: a scan may wait
// minutes for its engine, so nothing is waited for.
void WatchForInterrupt();

// What is still to be printed then; called under OutputLock, at most once. Set it under OutputLock.
void SetLastWords(std::function<void()> last_words);

}  // namespace kesto::host
