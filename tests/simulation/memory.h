// The memory that the bridge takes: counted, and lacking at times. What the simulation takes itself is not.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kesto::simulation {

struct Memory {
    bool inside = false;  // the bridge's code runs
    int64_t blocks = 0;
    int64_t bytes = 0;
    uint64_t spare = 0;    // allocations that still succeed before
    uint64_t lacking = 0;  // so many fail
    uint64_t failed = 0;   // so many have
};
extern Memory g_memory;

// From here to its end the bridge's code runs, or the simulation's.
class Inside {
 public:
    explicit Inside(bool inside = true) : before_(g_memory.inside) { g_memory.inside = inside; }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;
    ~Inside() { g_memory.inside = before_; }

 private:
    bool before_;
};

class Outside : private Inside {
 public:
    // `allocates`: what follows would take memory of the system, and may fail.
    explicit Outside(bool allocates = false);
};

}  // namespace kesto::simulation
