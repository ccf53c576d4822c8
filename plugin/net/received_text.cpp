#include "plugin/net/received_text.h"

#include <algorithm>
#include <utility>

namespace kesto {

bool ReceivedText::Append(std::string_view more) {
    if (more.size() > capacity_ - size_) {
        const size_t capacity = std::max(size_ + more.size(), 2 * capacity_);
        // Not the new operator: its nothrow form throws internally, and catches that again.
        void* const bytes = realloc(bytes_, capacity);
        if (bytes == nullptr) {
            return false;
        }
        bytes_ = static_cast<char*>(bytes);
        capacity_ = capacity;
    }
    std::copy(more.begin(), more.end(), bytes_ + size_);
    size_ += more.size();
    return true;
}

void ReceivedText::Swap(ReceivedText& other) {
    std::swap(bytes_, other.bytes_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
}

}  // namespace kesto
