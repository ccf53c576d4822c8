#include <cstdint>
#include <vector>

#include "engine/byte_shift.h"

// What the engine adds again gives the file back.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<uint8_t> bytes(data, data + size);
    kesto::ShiftBytesDown(bytes.data(), bytes.size());
    for (size_t i = 0; i < size; ++i)
        if (static_cast<uint8_t>(bytes[i] + 1) != data[i])
            __builtin_trap();
    return 0;
}
