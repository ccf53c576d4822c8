// Whether a process loses anything: handles, sockets among them, and bytes of the heap that it shares with
// the plug-in.
#pragma once

#include <windows.h>

namespace kesto {

struct Holdings {
    int handles;
    long long bytes;
};
Holdings CountHoldings();

// Fails the test when each of so many rounds since then may have lost something.
void ExpectNotGrown(const Holdings& before, int rounds);

// Expects that `fault` loses nothing: runs it once for what is made only once, and then so often that a loss
// each time shows.
template <class Fault>
void ExpectNothingLost(int rounds, Fault fault) {
    fault();
    const Holdings before = CountHoldings();
    for (int round = 0; round < rounds; ++round) {
        fault();
    }
    ExpectNotGrown(before, rounds);
}

}  // namespace kesto
