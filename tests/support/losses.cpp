#include "tests/support/losses.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <winternl.h>

#include <cstdlib>
#include <vector>

namespace kesto {
namespace {

// GetProcessHandleCount would do on Windows; elsewhere it answers 0.
int CountHandles() {
    struct Entry {
        USHORT process_id, trace;
        UCHAR type, attributes;
        USHORT value;
        PVOID object;
        ULONG access;
    };
    constexpr auto kHandles = static_cast<SYSTEM_INFORMATION_CLASS>(16);
    static std::vector<Entry> table(1 << 18);
    const auto* const count = reinterpret_cast<const ULONG*>(table.data());
    int handles = 0;
    if (NtQuerySystemInformation(kHandles, table.data(), table.size() * sizeof(Entry), nullptr) == 0) {
        const auto* const entries = reinterpret_cast<const Entry*>(count + 1);
        for (ULONG i = 0; i < *count; ++i) {
            handles += entries[i].process_id == static_cast<USHORT>(GetCurrentProcessId());
        }
    }
    return handles;
}

}  // namespace

Holdings CountHoldings() {
    Holdings held = {CountHandles(), 0};
    _HEAPINFO block = {};
    while (_heapwalk(&block) == _HEAPOK) {
        held.bytes += block._useflag == _USEDENTRY ? static_cast<long long>(block._size) : 0;
    }
    EXPECT_GT(held.handles, 0);
    EXPECT_GT(held.bytes, 0);
    return held;
}

void ExpectNotGrown(const Holdings& before, int rounds) {
    const Holdings after = CountHoldings();
    EXPECT_LT(after.handles - before.handles, rounds);
    // With its heap checks on, Wine keeps freed blocks for a while, and they count as in use.
    if (getenv("KESTOAV_TEST_HEAP_CHECKED") == nullptr) {
        EXPECT_LT(after.bytes - before.bytes, rounds * 64);
    }
}

}  // namespace kesto
