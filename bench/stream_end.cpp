#include "bench/stream_end.h"

namespace kesto {

bool StreamEnd::IsReachedBy(const char* bytes, size_t count) {
    size_t last = 0;
    while (last < count && bytes[count - 1 - last] == 0) {
        ++last;
    }
    zeros_ = last == count ? zeros_ + last : last;
    return zeros_ >= 4;
}

}  // namespace kesto
