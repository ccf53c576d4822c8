// The record of what an operation tried: one line for each step, and why it failed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kesto {

// What does not fit is left out. Nothing throws.
class OperationRecord {
 public:
    OperationRecord() = default;
    ~OperationRecord();
    OperationRecord(const OperationRecord&) = delete;
    OperationRecord& operator=(const OperationRecord&) = delete;

    // Begins anew, for this operation.
    void Start(std::string_view operation);
    void AddLine(std::string_view line);
    void AddEntry(std::string_view name, std::string_view value);
    void AddEntry(std::string_view name, int64_t value);
    // A Windows Sockets error in words.
    void AddSocketError(int error);

    // The lines, separated by "\n". The object owns the text, which is valid until this has been called ten
    // more times.
    const char* Text();

 private:
    static constexpr size_t kSize = 1000;
    static constexpr int kRingSlots = 10;

    void AddText(std::string_view text);

    char text_[kSize] = {};
    size_t length_ = 0;
    // Allocated when the first text is asked for, since the object stands on the stack of the host's thread
    // and most scans ask for no text.
    char (*ring_)[kSize] = nullptr;
    int ring_index_ = 0;
};

}  // namespace kesto
