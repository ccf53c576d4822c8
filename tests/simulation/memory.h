// The memory that the bridge takes: counted, and lacking at times. What the simulation takes itself is not.
#pragma once

#include <cstdint>

namespace kesto::simulation {

struct Memory {
    bool inside = false;  // the bridge's code runs
    int64_t blocks = 0;
    uint64_t spare = 0;    // allocations that still succeed before
    uint64_t lacking = 0;  // so many fail
    uint64_t failed = 0;   // so many have
};
inline Memory g_memory;

void FailIfLacking();

// From here to its end the bridge's code runs, or the simulation's.
struct Inside {
    explicit Inside(bool inside = true) : before(g_memory.inside) { g_memory.inside = inside; }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;
    ~Inside() { g_memory.inside = before; }
    const bool before;
};
struct Outside : Inside {
    // `allocates`: what follows would take memory of the system, and may fail.
    explicit Outside(bool allocates = false) : Inside((allocates ? FailIfLacking() : void(), false)) {}
};

}  // namespace kesto::simulation
