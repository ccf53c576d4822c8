// The parts that need no Windows; they also run natively under the sanitizers.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

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
    const std::tuple<const char*, const char*> cases[] = {
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
    for (const auto& [text, list] : cases) {
        EXPECT_EQ(Listed(text), list) << text;
    }
}

TEST(ReplyVerdict, TellsCleanInfectedAndUnexpected) {
    using enum VerdictKind;
    const std::tuple<const char*, VerdictKind, const char*> cases[] = {
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
    for (const auto& [reply, kind, text] : cases) {
        const ScanVerdict verdict = VerdictOfReply(reply);
        EXPECT_EQ(verdict.kind, kind) << reply;
        EXPECT_EQ(verdict.text, text) << reply;
    }
}

TEST(ByteShift, WrapsAndStaysWithinTheCount) {
    std::string all, shifted;
    for (int i = 0; i < 600; ++i) {
        all += static_cast<char>(i);
        shifted += static_cast<char>(i + 255);
    }
    for (size_t first = 0; first < 16; ++first) {
        for (size_t count = 0; count < 580; ++count) {
            std::string bytes = all;
            ShiftBytesDown(reinterpret_cast<uint8_t*>(bytes.data()) + first, count);
            ASSERT_EQ(bytes, std::string(all).replace(first, count, shifted, first, count))
                << first << ' ' << count;
        }
    }
}

TEST(ElapsedSeconds, RoundsDownAndSeesThroughTheWrapOfTheTickCount) {
    EXPECT_EQ(ElapsedSeconds(1000, 1999), 0u);
    EXPECT_EQ(ElapsedSeconds(1000, 2000), 1u);
    EXPECT_EQ(ElapsedSeconds(0xFFFFFF00u, 0xFFFFFF00u + 2500), 2u);
    EXPECT_EQ(ElapsedSeconds(5, 4), 4294967u);
}

}  // namespace
}  // namespace kesto
