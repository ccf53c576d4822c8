// The text that describes the plug-in and the engine's signature database.
#pragma once

#include <cstdint>

namespace kesto {

// Asks the first engine server for its version and writes two lines, of at most `size` - 2 characters
// together, into the host's buffer of `size` bytes. The last byte of the buffer is never written. Writes
// nothing when the buffer is null or the size is below 2.
void WriteVersionDetails(char* buffer, int32_t size);

}  // namespace kesto
