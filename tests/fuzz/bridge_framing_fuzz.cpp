// First byte: how the rest, a client's bytes, is cut into pieces. The stream must come out the same cut or
// whole, and undoing the shift must touch data only.
#include <algorithm>
#include <cstdlib>
#include <vector>

#include "bridge/framing.h"

using namespace kesto;

namespace {

struct Followed {
    std::vector<uint8_t> bytes;
    size_t used = 0;
    bool valid = true;
    ChunkStream stream;
};

Followed Follow(const uint8_t* data, size_t size, size_t piece, bool unshift) {
    Followed result;
    result.bytes.assign(data, data + size);
    while (result.valid && !result.stream.ended && result.used < size) {
        const size_t next = std::min(piece, size - result.used);
        const auto [used, valid] =
            FollowChunks(result.stream, result.bytes.data() + result.used, next, unshift);
        if (used > next || (valid && !result.stream.ended && used != next)) {
            abort();
        }
        result.used += used;
        result.valid = valid;
    }
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const size_t piece = data[0] + 1u;
    ++data;
    --size;
    const CommandFound found = FindCommand(data, size);
    if (found.size > size) {
        abort();
    }
    data += found.size;
    size -= found.size;

    const Followed whole = Follow(data, size, size + 1, true);
    const Followed cut = Follow(data, size, piece, true);
    const Followed plain = Follow(data, size, piece, false);
    if (whole.bytes != cut.bytes || whole.used != cut.used || whole.valid != cut.valid ||
        plain.used != cut.used || !std::equal(data, data + size, plain.bytes.begin())) {
        abort();
    }
    uint64_t changed = 0;
    for (size_t i = 0; i < size; ++i) {
        const bool shifted = cut.bytes[i] == static_cast<uint8_t>(data[i] + 1);
        if (!shifted && cut.bytes[i] != data[i]) {
            abort();
        }
        changed += shifted;
    }
    if (changed != cut.stream.data_bytes) {
        abort();
    }
    return 0;
}
