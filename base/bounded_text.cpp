#include "base/bounded_text.h"

#include <cstdarg>
#include <cstring>

namespace kesto {

void CopyText(char* buffer, size_t size, const char* text) {
    if (buffer == nullptr || size == 0) {
        return;
    }
    size_t length = strnlen(text, size - 1);
    memcpy(buffer, text, length);
    buffer[length] = '\0';
}

void FormatText(char* buffer, size_t size, const char* format, ...) {
    va_list values;
    va_start(values, format);
    vsnprintf(buffer, size, format, values);
    va_end(values);
}

}  // namespace kesto
