// The memory that is taken: counted, and lacking at times for the bridge.
#pragma once

#include <cstdint>
#include <new>

namespace kesto::simulation {

struct Memory {
    void FailIfLacking() {
        if (inside && lacking != 0 && (spare == 0 || spare-- == 0)) {
            --lacking;
            ++failed;
            throw std::bad_alloc();
        }
    }

    bool inside = false;  // the bridge's code runs
    int64_t blocks = 0;
    uint64_t spare = 0;    // allocations that still succeed before
    uint64_t lacking = 0;  // so many fail
    uint64_t failed = 0;   // so many have
};
inline Memory g_memory;

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
    explicit Outside(bool allocates = false)
        : Inside((allocates ? g_memory.FailIfLacking() : void(), false)) {}
};

}  // namespace kesto::simulation
