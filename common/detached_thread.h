// A thread that nobody waits for.
#pragma once

#include <functional>

namespace kesto {

// Runs the work, which must not throw, on a thread of its own. False when the system has no thread for it.
// Not by std::thread: with this library, its start and its detaching fail now and then in short threads.
bool RunDetached(std::function<void()> work);

}  // namespace kesto
