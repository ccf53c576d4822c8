// The text that describes the plug-in and the engine's signature database.
#pragma once

#include <cstdint>

namespace kesto {

// Asks the first engine server for its version and writes two lines, of at most `size` - 2 characters
// together, into the host's buffer of `size` bytes, whose last byte is never written. Writes nothing
// without a buffer or for a size below 2.
void WriteVersionDetails(char* buffer, int32_t size);

}  // namespace kesto
