#include "plugin/result_codes.h"

#include "base/bounded_text.h"
#include "base/host_records.h"

namespace kesto {

bool IsFatal(uint32_t code) {
    return code == kErrorConnect;
}

void WriteErrorText(uint32_t code, char* buffer, int32_t size) {
    if (buffer == nullptr || size <= 0) {
        return;
    }
    char text[64];
    switch (code) {
        case kErrorConnect:
            CopyText(text, sizeof text, "Error connecting to AV server");
            break;
        case kErrorCommunicate:
            CopyText(text, sizeof text, "Error communicating with AV server");
            break;
        default:
            FormatText(text, sizeof text, "Error %lu", static_cast<unsigned long>(code));
    }
    CopyText(buffer, static_cast<size_t>(size), text);
}

}  // namespace kesto
