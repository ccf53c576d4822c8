// What a client sends to an engine: one command and, for a scan, the chunk stream after it. Knows no sockets:
// it is given bytes as they come, cut anywhere.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kesto::bridge {

// A chunk whose length is above this ends the connection. Chunks are passed on as they come and never
// held, so the limit costs no memory: it tells a length from text or noise read as one.
constexpr uint32_t kMaxChunkSize = 64 * 1024 * 1024;

enum class Command { kIncomplete, kUnknown, kScan, kVersion, kPing, kStats };

struct CommandFound {
    Command command;
    size_t size;  // bytes of the command with its NUL; 0 when incomplete or unknown
};

// Looks for one whole command at the start of the bytes. It is unknown as soon as they cannot become one.
CommandFound FindCommand(const uint8_t* bytes, size_t size);

// The position in the chunk stream after the bytes so far. A new one is before the first length.
struct ChunkStream {
    uint32_t length = 0;  // of the current chunk, as far as its four bytes are known
    unsigned length_bytes = 0;
    uint32_t data_left = 0;   // of the current chunk
    uint64_t data_bytes = 0;  // seen in all
};

enum class StreamState {
    kGoesOn,
    kEnded,    // the zero length was seen
    kInvalid,  // a length is above kMaxChunkSize, and nothing may be passed on
};

// Follows the stream through the next bytes and, with unshift, adds one to every data byte in place
// (lengths stay as they are). Returns how many bytes belong to the stream: all of them, or fewer once it
// has ended, which it must not have before.
struct ChunksFollowed {
    size_t used;
    StreamState state;
};
ChunksFollowed FollowChunks(ChunkStream& stream, uint8_t* bytes, size_t size, bool unshift);

}  // namespace kesto::bridge
