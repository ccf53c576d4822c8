// What the error codes of a failed scan mean.
#pragma once

#include <cstdint>

namespace kesto {

bool IsFatal(uint32_t code);

// Writes the text of `code` into a buffer of `size` bytes, cut to fit and terminated. Writes nothing when the
// buffer is null or the size is 0 or less.
void WriteErrorText(uint32_t code, char* buffer, int32_t size);

}  // namespace kesto
