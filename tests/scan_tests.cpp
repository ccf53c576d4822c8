// A scan through the exports: what goes on the wire, and what the host sees of all that an engine can do.
#include "engine/stream_scan.h"
#include "tests/support/fake_system.h"
#include "tests/support/losses.h"

namespace kesto {
namespace {

using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::HasSubstr;

class ScanTest : public PluginTest {};

TEST_F(ScanTest, SendsTheFileInPrefixedChunksAndShiftedUnlessTheSettingIsOff) {
    ScriptedEngine engine;
    const struct {
        const char* setting;
        bool shifted;
    } cases[] = {{"encrypt=0", false},    {"", true},  // the default is not what was in force
                 {"encrypt=1", true},     {"encrypt=2", true},
                 {"encrypt=256", true},   {"encrypt=-1", true},
                 {"encrypt=abc", false},  {"ENCRYPT = 0x ", false},
                 {"restartcount=5", true}};
    for (const auto& each : cases) {
        Start(Servers(engine.Port()) + each.setting);
        for (const size_t size : {1, 100, 8191, 8192, 8193, 16384, 30'001}) {
            std::string data(size, '\0');
            for (size_t i = 0; i < size; ++i) {
                data[i] = static_cast<char>(i * 7 + i / 8192);
            }
            std::string hosts_memory = data;
            ASSERT_TRUE(Scan(hosts_memory).Clean());
            EXPECT_EQ(hosts_memory, data);
            // Compared as a truth: a difference in so many bytes would drown the output.
            EXPECT_TRUE(engine.Requests().back().raw == ScanRequestOf(data, each.shifted))
                << each.setting << ' ' << size;
        }
    }
    Start(Servers(engine.Port()));
    Scan(std::string("\x00\x01\xFF", 3));
    EXPECT_EQ(engine.Requests().back().raw, std::string("zINSTREAM\0\0\0\0\x03\xFF\x00\xFE\0\0\0\0", 21));
}

TEST_F(ScanTest, TellsTheHostWhatTheEngineDid) {
    constexpr uint32_t kEither = 1;  // 1002 or 1003, as the network's timing has it
    const uint16_t port = FreePort();
    const std::string v49(49, 'v'), limit(1 << 20, 'x');
    const auto found = [](const std::string& name) { return Replying("stream: " + name + " FOUND"); };
    const struct {
        EngineScript script;
        uint32_t error;
        const char* virus_name;  // null: none
        std::string reply;       // as logged, with 1003
    } cases[] = {
        {Replying("stream: OK"), 0, nullptr, ""},
        {Replying("stream: Heuristics failed ERROR"), 0, nullptr, ""},
        {found(""), 0, "", ""},
        {found("Two words.%s"), 0, "Two words.%s", ""},
        {found(v49), 0, v49.c_str(), ""},
        {found(v49 + "%n"), 0, v49.c_str(), ""},
        {found(std::string((1 << 20) - 14, 'v')), 0, v49.c_str(), ""},
        {found(std::string((1 << 20) - 13, 'v')), 1003, nullptr, ""},  // above 1 MiB it is refused
        {Endless("stream: "), 1003, nullptr, ""},
        {ReplyingBytes(WithNul("stream: In.Pieces FOUND"), Then::kHolds, 1), 0, "In.Pieces", ""},
        {ReplyingBytes(WithNul("stream: A FOUND") + WithNul("stream: OK")), 0, "A", ""},
        {ReplyingBytes(WithNul("stream: OK") + "trailing"), 0, nullptr, ""},
        {Replying("INSTREAM size limit exceeded. ERROR"), 1003, nullptr,
         "INSTREAM size limit exceeded. ERROR"},
        {Replying("%s%n%d"), 1003, nullptr, "%s%n%d"},
        {Replying(std::string(901, 'r')), 1003, nullptr, std::string(900, 'r')},
        {Replying(""), 1003, nullptr, ""},
        {ReplyingBytes("stream: OK"), 1003, nullptr, ""},  // without its NUL
        {ReplyingBytes("stream: A FOUND", Then::kResets), 1003, nullptr, ""},
        {ReplyingBytes(""), 1003, nullptr, ""},
        {ReplyingBytes("", Then::kResets), 1003, nullptr, ""},
        {DyingAfter(0, true), kEither, nullptr, ""},
        {DyingAfter(10), kEither, nullptr, ""},
        {DyingAfter(100'000, true), kEither, nullptr, ""},
    };
    installed.CreateLog();
    Start(Servers(port));
    const std::string data(500'000, 'd');
    for (const auto& each : cases) {
        SCOPED_TRACE(&each - cases);
        ExpectNothingLost(4, [&] {
            const ScriptedEngine engine(each.script, port);
            const ScanOutcome outcome = Scan(data);
            const auto messages = installed.LogMessages();
            if (each.error == 0) {
                EXPECT_TRUE(each.virus_name ? outcome.Infected("mail.eml", each.virus_name) : outcome.Clean())
                    << testing::PrintToString(outcome);
            } else {
                EXPECT_TRUE(outcome.Failed(1003) || (each.error == kEither && outcome.Failed(1002)))
                    << testing::PrintToString(outcome);
            }
            EXPECT_EQ(messages.back(), outcome.error == 1003
                                           ? "Unexpected response from KESTOAV - " + each.reply
                                           : "Scan file - mail.eml - 500000");
            system.calls.clear();
        });
    }
}

TEST_F(ScanTest, CutsTheFileNameToEachField) {
    ScriptedEngine engine(Replying("stream: V FOUND"));
    installed.CreateLog();
    Start(Servers(engine.Port()));
    for (const std::string& name : {std::string(300, 'n'), std::string(256, 'n'), std::string(255, 'n'),
                                    std::string(100, 'n'), std::string("100%s%n%d.eml"), std::string()}) {
        EXPECT_TRUE(Scan("x", name).Infected(name.substr(0, 255), "V")) << name;
        EXPECT_EQ(installed.LogMessages().back(), "Scan file - " + name.substr(0, 100) + " - 1");
    }
}

TEST_F(ScanTest, FollowsNoNullPointerOfTheHosts) {
    ScriptedEngine engine(Replying("stream: V FOUND"));
    Start(Servers(engine.Port()));
    const ScanFileInput data{"n", 1, reinterpret_cast<const uint8_t*>("x")};
    const ScanFileInput no_data{"n", 1, nullptr};
    const ScanFileInput empty{"n", 0, nullptr};
    ScanFileResult no_detection{kUntouched, kUntouched, nullptr};
    const struct {
        const ScanFileInput* input;
        ScanFileResult* result;
        int32_t returns;
        uint32_t error;
    } cases[] = {
        {nullptr, &no_detection, 0, 1002}, {&no_data, &no_detection, 0, 1002},    {&data, nullptr, 0, 1002},
        {&empty, nullptr, 1, kUntouched},  {&data, &no_detection, 1, kUntouched},
    };
    for (const auto& each : cases) {
        uint32_t error = kUntouched;
        EXPECT_EQ(plugin.scan_file(0, each.input, each.result, &error, 0, 0), each.returns);
        EXPECT_EQ(error, each.error);
        EXPECT_EQ(plugin.scan_file(0, each.input, each.result, nullptr, 0, 0), each.returns);
    }
    EXPECT_EQ(no_detection.reserved, kUntouched);
    EXPECT_EQ(no_detection.infected, 1u);
}

TEST_F(ScanTest, ReadsTheSizeAgainBeforeEveryChunk) {
    ScriptedEngine engine;
    Start(Servers(engine.Port()));
    const std::string data(64 << 20, 'x');
    ScanFileInput input{"shrinks", static_cast<uint32_t>(data.size()),
                        reinterpret_cast<const uint8_t*>(data.data())};
    ScanFileResult result = {};
    uint32_t error = 0;
    int32_t scanned = 0;
    std::thread scan([&] { scanned = plugin.scan_file(0, &input, &result, &error, 0, 0); });
    EXPECT_TRUE(WaitFor([&] { return engine.BytesReceived() > 8192; }));
    *static_cast<volatile uint32_t*>(&input.size) = 1;
    scan.join();
    EXPECT_EQ(scanned, 1);
    EXPECT_TRUE(engine.Requests().at(0).whole);
    EXPECT_LT(engine.BytesReceived(), data.size());
}

TEST_F(ScanTest, OfAnEmptyFileNeedsNoEngine) {
    installed.CreateLog();
    Start("autostart=0");
    EXPECT_TRUE(Scan("").Clean());
    EXPECT_TRUE(system.calls.empty());
    EXPECT_THAT(installed.LogMessages(), ElementsAre("Scan file - mail.eml - 0"));
}

TEST_F(ScanTest, GivesUpAnEngineThatStandsStillForTwentySeconds) {
    ScriptedEngine silent(Silent("stream: ")), deaf(Deaf());
    Start(Servers(silent.Port()));
    const std::string more_than_fits(64 << 20, 'x');
    ScanOutcome small = {};
    ScanFileInput input = {"large", static_cast<uint32_t>(more_than_fits.size()),
                           reinterpret_cast<const uint8_t*>(more_than_fits.data())};
    VerdictKind large = VerdictKind::kClean;
    std::string version;
    const auto begin = steady_clock::now();
    std::thread threads[] = {std::thread([&] { small = Scan("x"); }),
                             std::thread([&] { version = plugin.VersionDetails(); }), std::thread([&] {
                                 SocketConnection connection;
                                 ReceivedText reply;
                                 EXPECT_TRUE(connection.Connect("127.0.0.1", deaf.Port(), false, 1000));
                                 large = StreamScan(connection, input, true, reply).kind;
                             })};
    for (std::thread& each : threads) {
        each.join();
    }
    EXPECT_NEAR(std::chrono::duration<double>(steady_clock::now() - begin).count(), 20.5, 1.5);
    EXPECT_TRUE(small.Failed(1003));
    EXPECT_EQ(large, VerdictKind::kSendFailed);
    EXPECT_THAT(version, HasSubstr("\nError -ReceiveStringUntilByte"));
    EXPECT_THAT(version, HasSubstr("WaitForData timed out."));
}

}  // namespace
}  // namespace kesto
