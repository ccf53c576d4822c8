// The parts that need no Windows; they also run natively under the sanitizers.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "base/elapsed_seconds.h"
#include "base/server_list.h"
#include "engine/byte_shift.h"
#include "engine/reply_verdict.h"

namespace kesto {
namespace {

std::string Listed(std::string_view text) {
    ServerList servers;
    servers.Append(text);
    std::string list;
    for (const ServerEntry& each : servers) {
        list += std::string("<") + each.host + "|" + std::to_string(each.port) + ">";
    }
    return list;
}

TEST(ServerList, SplitsAtSingleBlanksAndReadsPortsAsNumbersOf16Bits) {
    const struct {
        const char* text;
        const char* list;
    } cases[] = {
        {"a:1 b", "<a|1><b|3313>"},
        {"a:1  b", "<a|1><|3313><b|3313>"},
        {" a ", "<|3313><a|3313><|3313>"},
        {"", "<|3313>"},
        {"a\t,b:2", "<a\t,b|2>"},
        {":5", "<|5>"},
        {"h: h:x h:-1 h:70000 h:010 h:0x1F h:+7 h:\t8 h:9z",
         "<h|0><h|0><h|65535><h|4464><h|10><h|0><h|7><h|8><h|9>"},
        {"[::1]:3310", "<[|0>"},
        {"h:1:2", "<h|1>"},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(Listed(each.text), each.list) << each.text;
    }
}

TEST(ReplyVerdict, TellsCleanInfectedAndUnexpected) {
    using enum VerdictKind;
    const struct {
        const char* reply;
        VerdictKind kind;
        const char* text;
    } cases[] = {
        {"stream: OK", kClean, ""},
        {"stream: OK ", kClean, ""},
        {"stream: ", kClean, ""},
        {"stream: FOUND", kClean, ""},  // the blank belongs to "stream: "
        {"stream:  FOUND", kInfected, ""},
        {"stream: Eicar Test FOUND", kInfected, "Eicar Test"},
        {"stream:   padded  FOUND", kInfected, "  padded "},
        {"stream: X FOUND FOUND", kInfected, "X FOUND"},
        {"stream: X found", kClean, ""},
        {"stream: X FOUND ", kClean, ""},
        {"stream: INSTREAM size limit exceeded. ERROR", kClean, ""},
        {"stream:", kUnexpectedReply, "stream:"},
        {"STREAM: OK", kUnexpectedReply, "STREAM: OK"},
        {" stream: OK", kUnexpectedReply, " stream: OK"},
        {"INSTREAM size limit exceeded. ERROR", kUnexpectedReply, "INSTREAM size limit exceeded. ERROR"},
        {"", kUnexpectedReply, ""},
        {"%s%n FOUND", kUnexpectedReply, "%s%n FOUND"},
    };
    for (const auto& each : cases) {
        const ScanVerdict verdict = VerdictOfReply(each.reply);
        EXPECT_EQ(verdict.kind, each.kind) << each.reply;
        EXPECT_EQ(verdict.text, each.text) << each.reply;
    }
}

TEST(ByteShift, WrapsAndStaysWithinTheCount) {
    // Every length and alignment that a vectorised loop could treat apart.
    for (size_t first = 0; first < 16; ++first) {
        for (size_t count = 0; count < 70; ++count) {
            std::vector<uint8_t> bytes(first + count + 1);
            for (size_t i = 0; i < bytes.size(); ++i) {
                bytes[i] = static_cast<uint8_t>(i * 5);
            }
            std::vector<uint8_t> expected = bytes;
            for (size_t i = first; i < first + count; ++i) {
                expected[i] = static_cast<uint8_t>(expected[i] + 255);
            }
            ShiftBytesDown(bytes.data() + first, count);
            ASSERT_EQ(bytes, expected) << first << ' ' << count;
        }
    }
    uint8_t bytes[] = {0x00, 0x01, 0xFF};
    ShiftBytesDown(bytes, 3);
    EXPECT_EQ(std::string(bytes, bytes + 3), std::string("\xFF\x00\xFE", 3));
}

TEST(ElapsedSeconds, RoundsDownAndSeesThroughTheWrapOfTheTickCount) {
    EXPECT_EQ(ElapsedSeconds(1000, 1999), 0u);
    EXPECT_EQ(ElapsedSeconds(1000, 2000), 1u);
    EXPECT_EQ(ElapsedSeconds(0xFFFFFF00u, 0xFFFFFF00u + 2500), 2u);
    EXPECT_EQ(ElapsedSeconds(5, 4), 4294967u);
}

}  // namespace
}  // namespace kesto
