#include "tests/support/losses.h"

#include <windows.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdlib>

namespace kesto {

void ExpectNothingLost(int rounds, const std::function<void()>& fault) {
    fault();
    int handles = 0;
    int64_t bytes = 0;
    const auto add_holdings = [&](int sign) {
        // On Windows GetProcessHandleCount would do; elsewhere it returns 0.
        for (uintptr_t handle = 4; handle < 16384; handle += 4) {
            DWORD flags;
            handles += sign * GetHandleInformation(reinterpret_cast<HANDLE>(handle), &flags);
        }
        _HEAPINFO block = {};
        while (_heapwalk(&block) == _HEAPOK) {
            bytes += block._useflag == _USEDENTRY ? sign * static_cast<int64_t>(block._size) : 0;
        }
    };
    add_holdings(-1);
    for (int round = 0; round < rounds; ++round) {
        fault();
    }
    add_holdings(1);
    EXPECT_LT(handles, rounds);
    // With its heap checks on, Wine keeps freed blocks for a while, and they count as in use.
    if (getenv("KESTOAV_TEST_HEAP_CHECKED") == nullptr) {
        EXPECT_LT(bytes, rounds * 64);
    }
}

}  // namespace kesto
