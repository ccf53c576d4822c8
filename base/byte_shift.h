// The byte shift of the encrypt setting: the plug-in shifts down, the bridge back up.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kesto {

// Adds `by`, -1 for down or 1 for up, to every byte; 0x00 becomes 0xFF, and the other way round.
void ShiftBytes(uint8_t* bytes, size_t count, int by);

}  // namespace kesto
