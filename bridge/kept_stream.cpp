#include "bridge/kept_stream.h"

#include <algorithm>
#include <new>
#include <utility>

namespace kesto {
namespace {

// A client that has sent nothing yet costs this much, and a small scan no more.
constexpr size_t kFirstBlock = 4096;
constexpr size_t kBlock = 64 * 1024;
constexpr size_t kWindow = 128 * 1024;

}  // namespace

KeptStream::~KeptStream() {
    while (!blocks_.empty()) {
        DropFirst();
    }
}

bool KeptStream::AddBlock() {
    const bool first = size_ == 0 && blocks_.empty();
    bool in_room = false;
    if (!first && !window_) {
        in_room = room_.used + kBlock <= room_.limit;
        window_ = !in_room;
    }
    if (window_ && held_ >= kWindow) {
        return false;
    }
    const size_t capacity = first ? kFirstBlock : kBlock;
    std::unique_ptr<uint8_t[]> bytes(new (std::nothrow) uint8_t[capacity]);
    if (!bytes) {
        window_ = true;
        return false;
    }
    blocks_.push_back({std::move(bytes), capacity, 0, in_room});
    room_.used += in_room ? capacity : 0;
    held_ += capacity;
    return true;
}

void KeptStream::DropFirst() {
    const Block& block = blocks_.front();
    room_.used -= block.in_room ? block.capacity : 0;
    held_ -= block.capacity;
    first_ += block.size;
    blocks_.pop_front();
}

std::span<uint8_t> KeptStream::Space() {
    if ((blocks_.empty() || blocks_.back().size == blocks_.back().capacity) && !AddBlock()) {
        return {};
    }
    Block& last = blocks_.back();
    return {last.bytes.get() + last.size, last.capacity - last.size};
}

void KeptStream::Append(size_t size) {
    blocks_.back().size += size;
    size_ += size;
}

std::span<const uint8_t> KeptStream::Piece(uint64_t position) const {
    uint64_t start = first_;
    for (const Block& block : blocks_) {
        if (position < start + block.size) {
            const size_t skipped = static_cast<size_t>(position - start);
            return {block.bytes.get() + skipped, block.size - skipped};
        }
        start += block.size;
    }
    return {};
}

void KeptStream::Release(uint64_t position) {
    while (window_ && !blocks_.empty() && position >= first_ + blocks_.front().size &&
           blocks_.front().size == blocks_.front().capacity) {
        DropFirst();
    }
}

}  // namespace kesto
