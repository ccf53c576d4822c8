#include "bridge/framing.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "base/byte_shift.h"
#include "base/clamd_words.h"

namespace kesto::bridge {
namespace {

constexpr struct {
    std::string_view text;
    Command command;
} kCommands[] = {
    {kScanCommand, Command::kScan},
    {kVersionCommand, Command::kVersion},
    {kPingCommand, Command::kPing},
    {kStatsCommand, Command::kStats},
};

}  // namespace

CommandFound FindCommand(const uint8_t* bytes, size_t size) {
    bool incomplete = false;
    for (const auto& [text, command] : kCommands) {
        if (size != 0 && std::memcmp(bytes, text.data(), std::min(size, text.size())) != 0) {
            continue;
        }
        if (size >= text.size()) {
            return {command, text.size()};
        }
        incomplete = true;
    }
    return {incomplete ? Command::kIncomplete : Command::kUnknown, 0};
}

ChunksFollowed FollowChunks(ChunkStream& stream, uint8_t* bytes, size_t size, bool unshift) {
    size_t used = 0;
    while (used < size) {
        if (stream.data_left != 0) {
            const size_t run = std::min<size_t>(stream.data_left, size - used);
            if (unshift) {
                ShiftBytes(bytes + used, run, 1);
            }
            stream.data_left -= static_cast<uint32_t>(run);
            stream.data_bytes += run;
            used += run;
            continue;
        }
        stream.length = stream.length << 8 | bytes[used++];  // four of them shift the former length out
        if (++stream.length_bytes < 4) {
            continue;
        }
        if (stream.length > kMaxChunkSize) {
            return {used, StreamState::kInvalid};
        }
        if (stream.length == 0) {
            return {used, StreamState::kEnded};
        }
        stream.data_left = stream.length;
        stream.length_bytes = 0;
    }
    return {used, StreamState::kGoesOn};
}

}  // namespace kesto::bridge
