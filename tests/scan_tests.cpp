// A scan through the exports: what goes on the wire, and what the host sees of all that an engine can do.
#include "tests/support/fake_system.h"
#include "tests/support/losses.h"

namespace kesto {
namespace {

using namespace testing;

class ScanTest : public PluginTest {};

TEST_F(ScanTest, SendsTheFileInPrefixedChunksAndShiftedUnlessTheSettingIsOff) {
    ScriptedEngine engine;
    const std::tuple<const char*, bool> cases[] = {
        {"encrypt=0", false},    {"", true},  // the default is not what was in force
        {"encrypt=1", true},     {"encrypt=2", true},
        {"encrypt=256", true},   {"encrypt=-1", true},
        {"encrypt=abc", false},  {"ENCRYPT = 0x ", false},
        {"restartcount=5", true}};
    for (const auto& [setting, shifted] : cases) {
        Start(Servers(engine.Port()) + setting);
        for (const size_t size : {1, 100, 8191, 8192, 8193, 16384, 30'001}) {
            std::string data(size, '\0');
            for (size_t i = 0; i < size; ++i) {
                data[i] = static_cast<char>(i * 7 + i / 8192);
            }
            std::string hosts_memory = data;
            ASSERT_TRUE(Scan(hosts_memory).Clean());
            EXPECT_EQ(hosts_memory, data);
            // Compared as a truth: a difference in so many bytes would drown the output.
            EXPECT_TRUE(engine.Requests().back().raw == ScanRequestOf(data, shifted))
                << setting << ' ' << size;
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
    // `virus_name`: null: none; `reply`: as logged, with 1003
    const std::tuple<EngineScript, uint32_t, const char*, std::string> cases[] = {
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
    for (const auto& [script, error, virus_name, reply] : cases) {
        SCOPED_TRACE(std::string(virus_name ? virus_name : "none") + " " + reply);
        ExpectNothingLost(4, [&] {
            const ScriptedEngine engine(script, port);
            const ScanOutcome outcome = Scan(data);
            const auto messages = installed.LogMessages();
            if (error == 0) {
                EXPECT_TRUE(virus_name ? outcome.Infected("mail.eml", virus_name) : outcome.Clean())
                    << PrintToString(outcome);
            } else {
                EXPECT_TRUE(outcome.Failed(1003) || (error == kEither && outcome.Failed(1002)))
                    << PrintToString(outcome);
            }
            EXPECT_EQ(messages.back(), outcome.error == 1003 ? "Unexpected response from KESTOAV - " + reply
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
    installed.CreateLog();
    Start(Servers(engine.Port()));
    const ScanFileInput data{"n", 1, reinterpret_cast<const uint8_t*>("x")};
    const ScanFileInput no_data{"n", 4'294'967'295, nullptr};
    const ScanFileInput empty{"n", 0, nullptr};
    ScanFileResult no_detection{kUntouched, kUntouched, nullptr};
    const std::tuple<const ScanFileInput*, ScanFileResult*, int32_t, uint32_t> cases[] = {
        {nullptr, &no_detection, 0, 1002}, {&no_data, &no_detection, 0, 1002},    {&data, nullptr, 0, 1002},
        {&empty, nullptr, 1, kUntouched},  {&data, &no_detection, 1, kUntouched},
    };
    for (const auto& [input, result, returns, error] : cases) {
        uint32_t told = kUntouched;
        EXPECT_EQ(plugin.scan_file(0, input, result, &told, 0, 0), returns);
        EXPECT_EQ(told, error);
        EXPECT_EQ(plugin.scan_file(0, input, result, nullptr, 0, 0), returns);
    }
    EXPECT_EQ(no_detection.reserved, kUntouched);
    EXPECT_EQ(no_detection.infected, 1u);
    EXPECT_THAT(installed.LogMessages(), Contains("Scan file - n - 4294967295"));
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
    EXPECT_TRUE(WaitFor([&] { return engine.Accepted() == 1 && engine.Requests().at(0).raw.size() > 8192; }));
    *static_cast<volatile uint32_t*>(&input.size) = 1;
    scan.join();
    EXPECT_EQ(scanned, 1);
    EXPECT_TRUE(engine.Requests().at(0).whole);
    EXPECT_LT(engine.Requests().at(0).raw.size(), data.size());
}

TEST_F(ScanTest, OfAnEmptyFileNeedsNoEngine) {
    installed.CreateLog();
    Start("autostart=0");
    EXPECT_TRUE(Scan("").Clean());
    EXPECT_TRUE(system.calls.empty());
    EXPECT_THAT(installed.LogMessages(), ElementsAre("Scan file - mail.eml - 0"));
}

std::string g_waits;

// Connects for real, and else lets the time pass at once.
int WSAAPI PassTime(int, fd_set* read, fd_set* send, fd_set* refused, timeval* limit) {
    g_waits += (refused ? " connect "
                : read  ? " read "
                        : " send ") +
               std::to_string(limit->tv_sec) + "." + std::to_string(limit->tv_usec);
    return refused ? select(0, read, send, refused, limit) : 0;
}

TEST_F(ScanTest, GivesUpAnEngineThatStandsStillForTwentySeconds) {
    const ImportPatch patch(plugin.module, "select", PassTime);
    ScriptedEngine engine(kDeaf);
    Start("servers=localhost:" + std::to_string(engine.Port()));
    EXPECT_TRUE(Scan("x").Failed(1003));
    EXPECT_TRUE(Scan(std::string(64 << 20, 'x')).Failed(1002));
    EXPECT_THAT(plugin.VersionDetails(), HasSubstr("\nWaitForData timed out."));
    EXPECT_EQ(g_waits, " connect 1.0 read 20.0 connect 1.0 send 20.0 connect 20.0 read 20.0");
}

}  // namespace
}  // namespace kesto
