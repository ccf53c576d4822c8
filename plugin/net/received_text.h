// Text that a peer sent, in memory that is taken without ever throwing: there are hosts whose process does
// not survive an exception of ours.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <string_view>

namespace kesto {

// Starts empty. What View gives is the object's own and valid until it changes or ends.
class ReceivedText {
 public:
    ReceivedText() = default;
    ~ReceivedText() { free(bytes_); }
    ReceivedText(const ReceivedText&) = delete;
    ReceivedText& operator=(const ReceivedText&) = delete;

    std::string_view View() const { return {bytes_, size_}; }

    // False when memory is lacking; the text then stays as it is.
    bool Append(std::string_view more);

    void Swap(ReceivedText& other);

 private:
    char* bytes_ = nullptr;
    size_t size_ = 0;
    size_t capacity_ = 0;
};

}  // namespace kesto
