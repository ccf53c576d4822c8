// The bridge's parts that know no sockets.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "bridge/framing.h"
#include "bridge/upstreams.h"

namespace kesto {
namespace {

using namespace std::literals;

uint8_t* Bytes(std::string& text) {
    return reinterpret_cast<uint8_t*>(text.data());
}

TEST(BridgeFraming, CommandIsKnownAtItsNulAndNotBefore) {
    std::string scan = "zINSTREAM\0\0\0\0\1"s;
    for (size_t size = 0; size < scan.size(); ++size) {
        const auto found = FindCommand(Bytes(scan), size);
        EXPECT_EQ(found.command, size < 10 ? Command::kIncomplete : Command::kScan) << size;
        EXPECT_EQ(found.size, size < 10 ? 0u : 10u);
    }
    for (std::string wrong : {"x"s, "zI\0"s, "zPINGS"s, "zVERSIOn\0"s}) {
        EXPECT_EQ(FindCommand(Bytes(wrong), wrong.size()).command, Command::kUnknown) << wrong;
    }
}

// However the stream is cut, the same bytes come out and what stands behind its end is left alone.
TEST(BridgeFraming, CutsDoNotMatter) {
    std::string whole, expected;
    std::minstd_rand random(1);
    for (uint32_t size : {1u, 255u, 256u, 70000u, 3u}) {
        const std::string length = {0, static_cast<char>(size >> 16), static_cast<char>(size >> 8),
                                    static_cast<char>(size)};
        whole += length;
        expected += length;
        for (uint32_t i = 0; i < size; ++i) {
            const uint8_t byte = static_cast<uint8_t>(random());
            whole += static_cast<char>(byte);
            expected += static_cast<char>(byte + 1);
        }
    }
    whole += "\0\0\0\0behind"s;
    expected += "\0\0\0\0behind"s;
    for (size_t longest_piece : {1u, 3u, 5000u, 1000000u}) {
        std::string bytes = whole;
        ChunkStream stream;
        size_t at = 0;
        while (!stream.ended) {
            const size_t piece = std::min<size_t>(1 + random() % longest_piece, bytes.size() - at);
            const auto [used, valid] = FollowChunks(stream, Bytes(bytes) + at, piece, true);
            ASSERT_TRUE(valid);
            at += used;
        }
        EXPECT_EQ(at, whole.size() - 6);
        EXPECT_EQ(stream.data_bytes, 1u + 255 + 256 + 70000 + 3);
        EXPECT_TRUE(bytes == expected);
    }
}

TEST(BridgeFraming, LargestChunkIsTakenAndOneMoreIsNot) {
    ChunkStream stream;
    std::string largest = "\4\0\0\0"s, larger = "\4\0\0\1"s;
    EXPECT_TRUE(FollowChunks(stream, Bytes(largest), 4, true).valid);
    EXPECT_EQ(stream.data_left, kMaxChunkSize);
    stream = {};
    EXPECT_FALSE(FollowChunks(stream, Bytes(larger), 4, true).valid);
}

TEST(BridgeUpstreams, PausesGrowAndEndWithAReply) {
    Upstream server;
    Clock::time_point now{};
    for (const auto pause : {1s, 2s, 4s, 8s, 16s, 32s, 32s}) {
        EXPECT_EQ(NoteFailure(server, now), pause);
        EXPECT_EQ(NoteFailure(server, now), 0s);  // in its pause already
        now += pause;
    }
    EXPECT_TRUE(NoteReply(server));
    EXPECT_FALSE(NoteReply(server));
    EXPECT_EQ(NoteFailure(server, now), 1s);
}

TEST(BridgeUpstreams, PausedServersComeLastAndOnlyOneClientTriesAReturningOne) {
    std::vector<Upstream> servers(3);
    const Clock::time_point now{};
    NoteFailure(servers[0], now);
    EXPECT_EQ(TryingOrder(servers, now), (std::vector{&servers[1], &servers[2], &servers[0]}));
    TakeTurn(servers, servers[1]);
    EXPECT_EQ(TryingOrder(servers, now), (std::vector{&servers[2], &servers[1], &servers[0]}));
    EXPECT_EQ(TryingOrder(servers, now + 1s).front(), &servers[0]);
    servers[0].being_tried = true;
    EXPECT_EQ(TryingOrder(servers, now + 1s).back(), &servers[0]);
}

}  // namespace
}  // namespace kesto
