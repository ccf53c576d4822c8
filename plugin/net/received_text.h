// Text that a peer sent, in memory that is allocated without ever throwing: the processes of some hosts do
// not survive an exception of ours.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <string_view>

namespace kesto {

// Starts empty. What View returns belongs to the object and is valid until the object changes or ends.
class ReceivedText {
 public:
    ReceivedText() = default;
    ~ReceivedText() { free(bytes_); }
    ReceivedText(const ReceivedText&) = delete;
    ReceivedText& operator=(const ReceivedText&) = delete;

    std::string_view View() const { return {bytes_, size_}; }

    // False when memory runs out; the text then stays as it is.
    bool Append(std::string_view more);

    void Swap(ReceivedText& other);

 private:
    char* bytes_ = nullptr;
    size_t size_ = 0;
    size_t capacity_ = 0;
};

}  // namespace kesto
