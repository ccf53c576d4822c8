#pragma once

#include <functional>

namespace kesto {

// Expects that `fault` loses no handles, sockets among them, and no bytes of the heap that the process shares
// with the plug-in: runs it once for what is made only once, and then often enough for a loss to show.
void ExpectNothingLost(int rounds, const std::function<void()>& fault);

}  // namespace kesto
