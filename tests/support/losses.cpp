#include "tests/support/losses.h"

#include <windows.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdlib>

namespace kesto {

Holdings CountHoldings() {
    Holdings held = {};
    // On Windows GetProcessHandleCount would do; elsewhere it returns 0.
    for (uintptr_t handle = 4; handle < 16384; handle += 4) {
        DWORD flags;
        held.handles += GetHandleInformation(reinterpret_cast<HANDLE>(handle), &flags);
    }
    _HEAPINFO block = {};
    while (_heapwalk(&block) == _HEAPOK) {
        held.bytes += block._useflag == _USEDENTRY ? static_cast<long long>(block._size) : 0;
    }
    EXPECT_GT(held.handles, 0);
    EXPECT_GT(held.bytes, 0);
    return held;
}

void ExpectNothingLost(int rounds, const std::function<void()>& fault) {
    fault();
    const Holdings before = CountHoldings();
    for (int round = 0; round < rounds; ++round) {
        fault();
    }
    const Holdings after = CountHoldings();
    EXPECT_LT(after.handles - before.handles, rounds);
    // With its heap checks on, Wine keeps freed blocks for a while, and they count as in use.
    if (getenv("KESTOAV_TEST_HEAP_CHECKED") == nullptr) {
        EXPECT_LT(after.bytes - before.bytes, rounds * 64);
    }
}

}  // namespace kesto
