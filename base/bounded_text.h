// Text in buffers of a fixed size: it is cut where it does not fit, and always terminated.
#pragma once

#include <cstddef>
#include <cstdio>

namespace kesto {

inline constexpr size_t kMessageSize = 1000;  // bytes of every formatted message, its NUL included
inline constexpr size_t kPathSize = 260;      // bytes of the plug-in folder and of paths right below it

// Copies at most `size` - 1 characters of `text`, which may lack a NUL beyond them, and terminates.
// Without a buffer, or with a size of 0, writes nothing.
void CopyText(char* buffer, size_t size, const char* text);

// Formats into `size` bytes by the rules of CopyText. Never throws.
[[gnu::format(__MINGW_PRINTF_FORMAT, 3, 4)]] void FormatText(char* buffer, size_t size, const char* format,
                                                             ...);

}  // namespace kesto
