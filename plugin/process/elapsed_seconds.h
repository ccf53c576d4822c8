// Whole seconds between two readings of the system's tick count.
#pragma once

#include <cstdint>

namespace kesto {

// Both in milliseconds; the count wraps after 49.7 days, which the unsigned difference sees through.
constexpr uint32_t ElapsedSeconds(uint32_t start, uint32_t now) {
    return static_cast<uint32_t>(now - start) / 1000;
}

}  // namespace kesto
