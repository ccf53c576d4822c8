// The byte shift of the encrypt setting: the plug-in shifts down, the bridge back up.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kesto {

// Subtracts one from every byte, or adds one to it; 0x00 becomes 0xFF, and the other way round.
void ShiftBytesDown(uint8_t* bytes, size_t count);
void ShiftBytesUp(uint8_t* bytes, size_t count);

}  // namespace kesto
