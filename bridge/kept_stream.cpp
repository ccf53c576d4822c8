#include "bridge/kept_stream.h"

#include <algorithm>
#include <new>
#include <utility>

namespace kesto::bridge {
namespace {

// A client that has sent nothing yet costs one of these; the blocks grow, for few large reads of a large
// file.
constexpr size_t kFirstBlock = 4 * 1024;
constexpr size_t kLargestBlock = 256 * 1024;
constexpr size_t kGrowth = 4;
constexpr size_t kWindow = 128 * 1024;
constexpr size_t kSmallestOfWindow = 16 * 1024;

}  // namespace

// Giving a block back takes no memory.
void KeepRoom::SetLimit(size_t bytes) {
    spare.reserve(bytes / kLargestBlock);
    limit = bytes;
}

std::unique_ptr<uint8_t[]> KeepRoom::NewBlock(size_t size) {
    if (size != kLargestBlock || spare.empty()) {
        return std::unique_ptr<uint8_t[]>(new (std::nothrow) uint8_t[size]);
    }
    auto block = std::move(spare.back());
    spare.pop_back();
    return block;
}

void KeepRoom::TakeBack(std::unique_ptr<uint8_t[]> block, size_t size) noexcept {
    if (size == kLargestBlock && used + (spare.size() + 1) * kLargestBlock <= limit) {
        spare.push_back(std::move(block));
    }
}

KeptStream::~KeptStream() {
    while (!blocks_.empty()) {
        DropFirst();
    }
}

void KeptStream::AddBlock() {
    const bool first = size_ == 0;
    size_t capacity = first ? kFirstBlock : std::min(next_block_, kLargestBlock);
    const bool in_room = !first && !window_ && room_.used + capacity <= room_.limit;
    if (!first && !in_room) {
        window_ = true;
        capacity = std::min(capacity, kWindow - std::min(held_, kWindow));
        if (capacity < kSmallestOfWindow) {
            return;
        }
    }
    auto bytes = room_.NewBlock(capacity);
    if (!bytes) {
        window_ = true;
        return;
    }
    blocks_.push_back({std::move(bytes), capacity, 0, in_room});
    room_.used += in_room ? capacity : 0;
    held_ += capacity;
    next_block_ = capacity * kGrowth;
}

void KeptStream::DropFirst() {
    Block& block = blocks_.front();
    room_.used -= block.in_room ? block.capacity : 0;
    room_.TakeBack(std::move(block.bytes), block.capacity);
    held_ -= block.capacity;
    first_ += block.size;
    blocks_.pop_front();
}

std::span<uint8_t> KeptStream::Space() {
    if (blocks_.empty() || blocks_.back().size == blocks_.back().capacity) {
        AddBlock();
    }
    if (blocks_.empty()) {
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
        if (position >= start && position < start + block.size) {
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

}  // namespace kesto::bridge
