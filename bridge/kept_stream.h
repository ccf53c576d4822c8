// What a client sent, from its command on, for as long as a server may still need it. Scans share the room
// for it; a stream that finds no more keeps only a window of what its server has not taken yet.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <vector>

namespace kesto::bridge {

// Memory is given back to the system with a delay: what is fresh from there costs more than what is copied
// into it.
struct KeepRoom {
    void SetLimit(size_t bytes);
    std::unique_ptr<uint8_t[]> NewBlock(size_t size);  // null: out of memory
    void TakeBack(std::unique_ptr<uint8_t[]> block, size_t size) noexcept;
    void ShrinkSpare() { spare.resize(spare.size() * 7 / 8); }  // to be called every now and then

    size_t limit = 0;  // bytes
    size_t used = 0;
    std::vector<std::unique_ptr<uint8_t[]>> spare;  // of the largest size
};

class KeptStream {
 public:
    explicit KeptStream(KeepRoom& room) : room_(room) {}
    KeptStream(const KeptStream&) = delete;
    KeptStream& operator=(const KeptStream&) = delete;
    ~KeptStream();

    // Where the next bytes may be put. Empty: only when some have been released.
    std::span<uint8_t> Space();
    void Append(size_t size);  // as many of them have been put there
    void End() { ended_ = true; }
    bool Ended() const { return ended_; }
    uint64_t Size() const { return size_; }

    // The bytes from this position on as far as they lie together; empty when there are none yet, or no more.
    std::span<const uint8_t> Piece(uint64_t position) const;

    // When there was no room for all of it: the bytes before this position may go.
    void Release(uint64_t position);

 private:
    struct Block {
        std::unique_ptr<uint8_t[]> bytes;
        size_t capacity;
        size_t size;
        bool in_room;
    };
    void AddBlock();
    void DropFirst();

    KeepRoom& room_;
    std::deque<Block> blocks_;
    uint64_t first_ = 0;  // position of the first block
    uint64_t size_ = 0;
    size_t held_ = 0;  // capacity of all blocks
    size_t next_block_ = 0;
    bool window_ = false;
    bool ended_ = false;
};

}  // namespace kesto::bridge
