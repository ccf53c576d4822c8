#include "engine/byte_shift.h"

namespace kesto {

void ShiftBytesDown(uint8_t* bytes, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<uint8_t>(bytes[i] - 1);
    }
}

}  // namespace kesto
