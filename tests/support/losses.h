// Whether a process loses anything: handles, sockets among them, and bytes of the heap that it shares with
// the plug-in.
#pragma once

#include <functional>

namespace kesto {

struct Holdings {
    int handles;
    long long bytes;
};
Holdings CountHoldings();

// Expects that `fault` loses nothing: runs it once for what is made only once, and then often enough for a
// loss to show.
void ExpectNothingLost(int rounds, const std::function<void()>& fault);

}  // namespace kesto
