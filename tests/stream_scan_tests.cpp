#include "tests/support/scanner_test.h"

namespace kesto {
namespace {

std::string Numbered(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>(i * 7 + i / 8192);
    }
    return bytes;
}

// What a scan of `data` must put on the wire.
std::string WireBytes(const std::string& data, bool encrypted) {
    std::string wire = WithNul("zINSTREAM");
    const auto add_length = [&wire](size_t length) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            wire += static_cast<char>(length >> shift);
        }
    };
    for (size_t offset = 0; offset < data.size(); offset += 8192) {
        const std::string chunk = data.substr(offset, 8192);
        add_length(chunk.size());
        for (const char each : chunk) {
            wire += static_cast<char>(encrypted ? each - 1 : each);
        }
    }
    add_length(0);
    return wire;
}

class StreamScanTest : public ScannerTest {
 protected:
    // Scans with an engine that answers so.
    ScanOutcome ScanAnswered(EngineScript script) {
        const FakeEngine engine(std::move(script), port_);
        return Scan("data");
    }
    void SetUp() override { StartWithIdleEngine(Servers(port_)); }

    uint16_t port_ = FreePort();
};

TEST_F(StreamScanTest, SendsTheFileInPrefixedChunks) {
    const FakeEngine engine({}, port_);
    for (const bool encrypted : {true, false}) {
        Start(Servers(port_) + (encrypted ? "" : "encrypt=0"));
        for (const size_t size : {1u, 100u, 8191u, 8192u, 8193u, 16384u, 300'001u}) {
            const std::string data = Numbered(size);
            std::string hosts_memory = data;
            ASSERT_TRUE(Scan(hosts_memory).Clean());
            EXPECT_EQ(hosts_memory, data);
            // Compared as a truth: a difference in so many bytes would drown the output.
            EXPECT_TRUE(engine.Conversations().back().raw == WireBytes(data, encrypted)) << size << encrypted;
        }
    }
}

TEST_F(StreamScanTest, SendsExactlyTheseBytesForASmallFile) {
    const FakeEngine engine({}, port_);
    ASSERT_TRUE(Scan(std::string("\x00\x01\xFF", 3)).Clean());
    EXPECT_EQ(engine.Conversations().at(0).raw, std::string("zINSTREAM\0\0\0\0\x03\xFF\x00\xFE\0\0\0\0", 21));
}

TEST_F(StreamScanTest, TurnsTheReplyIntoWhatTheHostSees) {
    const std::string name60 = std::string(58, 'v') + "%n";
    const struct {
        std::string reply;
        uint32_t code;           // 0: scanned
        const char* virus_name;  // null: none
        std::string logged;      // with code 1003
    } cases[] = {
        {WithNul("stream: OK"), 0, nullptr, ""},
        {WithNul("stream: Heuristics failed ERROR"), 0, nullptr, ""},
        {WithNul("stream:  FOUND"), 0, "", ""},
        {WithNul("stream: Two words.%s FOUND"), 0, "Two words.%s", ""},
        {WithNul("stream: " + name60 + " FOUND"), 0, "vvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvv", ""},
        {WithNul("stream: " + std::string((1 << 20) - 14, 'v') + " FOUND"), 0,
         "vvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvv", ""},
        {WithNul("stream: A FOUND") + "stream: OK" + '\0', 0, "A", ""},
        {WithNul("stream: OK") + "trailing", 0, nullptr, ""},
        {"stream: OK", 1003, nullptr, ""},  // closed before the NUL
        {"stream: A FOUND", 1003, nullptr, ""},
        {"", 1003, nullptr, ""},
        {WithNul("INSTREAM size limit exceeded. ERROR"), 1003, nullptr,
         "INSTREAM size limit exceeded. ERROR"},
        {WithNul("%s%n%d"), 1003, nullptr, "%s%n%d"},
        {WithNul(std::string(1 << 20, 'r')), 1003, nullptr, std::string(900, 'r')},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.reply.substr(0, 60));
        const ScanOutcome outcome = ScanAnswered({.reply = each.reply});
        if (each.code != 0) {
            EXPECT_TRUE(outcome.Failed(each.code));
            EXPECT_EQ(folder.LogMessages().back(), "Unexpected response from KESTOAV - " + each.logged);
        } else {
            EXPECT_TRUE(each.virus_name ? outcome.Infected("mail.eml", each.virus_name) : outcome.Clean());
            EXPECT_EQ(folder.LogMessages().back(), "Scan file - mail.eml - 4");
        }
    }
}

TEST_F(StreamScanTest, PutsAReplyInPiecesTogether) {
    EXPECT_TRUE(ScanAnswered({.reply = WithNul("stream: In.Pieces FOUND"), .bytes_per_send = 1})
                    .Infected("mail.eml", "In.Pieces"));
}

TEST_F(StreamScanTest, CutsTheFileNameToTheHostsField) {
    const FakeEngine engine({.reply = WithNul("stream: V FOUND")}, port_);
    EXPECT_TRUE(Scan("x", std::string(300, 'n')).Infected(std::string(255, 'n'), "V"));
    EXPECT_TRUE(Scan("x", std::string(255, 'n')).Infected(std::string(255, 'n'), "V"));
    EXPECT_TRUE(Scan("x", "").Infected("", "V"));
}

TEST_F(StreamScanTest, ReadsTheSizeAgainBeforeEveryChunk) {
    const FakeEngine engine({}, port_);
    const std::string data(64 << 20, 'x');
    ScanFileInput input{"shrinks", static_cast<uint32_t>(data.size()),
                        reinterpret_cast<const uint8_t*>(data.data())};
    ScanFileResult result{};
    uint32_t error = 0, scanned = 0;
    std::thread scan([&] { scanned = plugin.ScanFile(0, &input, &result, &error, 0, 0); });
    EXPECT_TRUE(WaitFor([&] { return engine.bytes_received() > 8192; }));
    *static_cast<volatile uint32_t*>(&input.size) = 1;
    scan.join();
    EXPECT_EQ(scanned, 1u);
    EXPECT_TRUE(engine.Conversations().at(0).complete);
    EXPECT_LT(engine.bytes_received(), data.size());
}

}  // namespace
}  // namespace kesto
