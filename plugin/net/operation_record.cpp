#include "plugin/net/operation_record.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "plugin/net/socket_errors.h"

namespace kesto {

OperationRecord::~OperationRecord() {
    free(ring_);
}

void OperationRecord::Start(std::string_view operation) {
    length_ = 0;
    AddText(operation);
}

// A plain copy, since this runs for every chunk of a file.
void OperationRecord::AddText(std::string_view text) {
    size_t length = std::min(text.size(), sizeof text_ - 1 - length_);
    memcpy(text_ + length_, text.data(), length);
    length_ += length;
    text_[length_] = '\0';
}

void OperationRecord::AddLine(std::string_view line) {
    AddText("\n");
    AddText(line);
}

void OperationRecord::AddEntry(std::string_view name, std::string_view value) {
    AddLine(name);
    AddText(": ");
    AddText(value);
}

void OperationRecord::AddEntry(std::string_view name, int64_t value) {
    char digits[20];
    auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    AddEntry(name, std::string_view(digits, static_cast<size_t>(end - digits)));
}

void OperationRecord::AddSocketError(int error) {
    if (const char* description = SocketErrorDescription(error)) {
        AddLine(description);
        return;
    }
    // Only errors without words of their own get this hint: the others tell their cause.
    char text[32];
    snprintf(text, sizeof text, "Error 0x%x", static_cast<unsigned>(error));
    AddLine(text);
    AddLine("Check to make sure the connection is not blocked by a firewall or anti-virus port filtering.");
}

const char* OperationRecord::Text() {
    if (ring_ == nullptr) {
        ring_ = static_cast<char(*)[kSize]>(calloc(kRingSlots, kSize));
    }
    if (ring_ == nullptr) {
        return text_;  // valid until the next operation; no caller keeps it for longer
    }
    ring_index_ = (ring_index_ + 1) % kRingSlots;
    memcpy(ring_[ring_index_], text_, sizeof text_);
    return ring_[ring_index_];
}

}  // namespace kesto
