// The error codes that a failed scan hands to the host, and their texts.
#pragma once

#include <cstdint>

namespace kesto {

inline constexpr uint32_t kErrorConnect = 1001;      // no engine reachable, even after a restart; fatal
inline constexpr uint32_t kErrorCommunicate = 1002;  // sending to the engine failed
inline constexpr uint32_t kErrorReply = 1003;        // the engine's reply was not understood

bool IsFatal(uint32_t code);

// Writes the text of `code` into a buffer of `size` bytes, cut to fit and terminated. Writes nothing
// without a buffer or for a size of 0 or less.
void WriteErrorText(uint32_t code, char* buffer, int32_t size);

}  // namespace kesto
