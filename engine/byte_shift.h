// The byte shift of the encrypt setting.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kesto {

// Decrements every byte by one; 0x00 wraps to 0xFF.
void ShiftBytesDown(uint8_t* bytes, size_t count);

}  // namespace kesto
