// Whole seconds between two readings of the system's tick count.
#pragma once

#include <cstdint>

namespace kesto {

// Both are in milliseconds. The count wraps after 49.7 days; the unsigned difference stays right.
constexpr uint32_t ElapsedSeconds(uint32_t start, uint32_t now) {
    return static_cast<uint32_t>(now - start) / 1000;
}

}  // namespace kesto
