// A scan through the exports: what is sent, and what the host sees of all that an engine can do.
#include <cstdlib>

#include "host/check/test_samples.h"
#include "tests/support/fake_system.h"

namespace {

using namespace kesto;
using namespace testing;
using namespace std::literals;

using ScanTest = PluginTest;

// As when the engine scans for long, and the bridge sends a byte now and then.
int WSAAPI ReceiveByteInThreeSeconds(SOCKET socket, char* bytes, int, int flags) {
    g_system->clock += 3000;
    return recv(socket, bytes, 1, flags);
}

ScanFileInput g_shrinking;

// As when the network's buffers are nearly full, and the host cuts its file meanwhile.
int WSAAPI SendHalf(SOCKET socket, const char* bytes, int size, int flags) {
    g_shrinking.size = size == 8192 ? 8193 : g_shrinking.size;
    return send(socket, bytes, (size + 1) / 2, flags);
}

TEST_F(ScanTest, SendsWhatTheFileHoldsNowInPrefixedChunksShiftedUnlessTheSettingIsOff) {
    const ImportPatch sends(plugin.module, "send", SendHalf);
    const ImportPatch receives(plugin.module, "recv", ReceiveByteInThreeSeconds);
    const uint16_t closed = FreePort();
    const std::pair<const char*, bool> cases[] = {
        {"encrypt=0", false},  {"", true},  // the default, not what was in effect before
        {"encrypt=256", true}, {"encrypt=-1", true}, {"encrypt=abc", false}, {"ENCRYPT = 0x ", false}};
    Start();
    for (const auto& [setting, shifted] : cases) {
        Start(Servers(closed) + setting);  // which adds its servers to those of the first start
        for (const size_t size : {1, 8191, 8192, 8193, 16384, 30'001}) {
            std::string data;
            while (data.size() < size) {
                data += static_cast<char>(data.size() % 251);
            }
            std::string hosts_memory = data;
            ASSERT_EQ(Scan(hosts_memory), "clean");
            EXPECT_EQ(hosts_memory, data);
            // Compared as a truth value, since a difference in so many bytes would drown the output.
            EXPECT_TRUE(engine.Requests().back().raw == ScanRequestOf(data, shifted))
                << setting << ' ' << size;
        }
    }
    const std::string cut(3 * 8192, 'x');
    g_shrinking = {"cut", 3 * 8192, reinterpret_cast<const uint8_t*>(cut.data())};
    ScanFileResult result = {};
    EXPECT_EQ(plugin.scan_file(0, &g_shrinking, &result, nullptr, 0, 0), 1);
    EXPECT_EQ(engine.Requests().back().raw, ScanRequestOf(cut.substr(0, 8193), false));
    engine.Play([](Wire& wire) { wire.Close(true); });
    EXPECT_EQ(Scan(std::string(64 << 20, 'x')), "failed 1002");
}

TEST_F(ScanTest, TellsTheHostWhatTheEngineDid) {
    const uint16_t port = FreePort();
    const std::string v49(49, 'v');
    const auto found = [](const std::string& name) { return Replying("stream: " + name + " FOUND"); };
    // what the engine does, the outcome, and the reply as logged with 1003
    const std::tuple<EngineScript, std::string, std::string> cases[] = {
        {Replying("stream: Heuristics failed ERROR"), "clean", ""},
        {Replying("stream: FOUND"), "clean", ""},  // the blank belongs to "stream: "
        {Replying("stream: X FOUND "), "clean", ""},
        {found(""), "mail.eml: ", ""},
        {found("Two words.%s"), "mail.eml: Two words.%s", ""},
        {found(v49 + "%n"), "mail.eml: " + v49, ""},
        {found(std::string((1 << 20) - 14, 'v')), "mail.eml: " + v49, ""},
        {found(std::string((1 << 20) - 13, 'v')), "failed 1003", ""},  // a reply above 1 MiB is refused
        {ReplyingBytes("stream: " + std::string(2 << 20, 'v'), Then::kHolds), "failed 1003", ""},
        {ReplyingBytes(WithNul("stream: A FOUND"), Then::kHolds), "mail.eml: A", ""},
        {ReplyingBytes(WithNul("stream: A FOUND") + WithNul("stream: OK")), "mail.eml: A", ""},
        {Replying("%s%n%d"), "failed 1003", "%s%n%d"},
        {Replying(std::string(901, 'r')), "failed 1003", std::string(900, 'r')},
        {ReplyingBytes("stream: OK"), "failed 1003", ""},  // without its NUL
        {[](Wire& wire) { wire.Close(wire.ReceiveRequest().whole); }, "failed 1003", ""},
    };
    Start(Servers(port));
    const std::string data(500'000, 'd');
    for (const auto& [script, outcome, reply] : cases) {
        SCOPED_TRACE(outcome + " " + reply);
        ExpectNothingLost(4, [&] {
            const ScriptedEngine server(script, port);
            EXPECT_EQ(Scan(data), outcome);
            EXPECT_EQ(installed.LogMessages().back(), outcome == "failed 1003"
                                                          ? "Unexpected response from KESTOAV - " + reply
                                                          : "Scan file - mail.eml - 500000");
            system.calls.clear();
        });
    }
}

TEST_F(ScanTest, CutsTheFileNameToEachFieldAndFollowsNoNullPointerOfTheHosts) {
    engine.Play(Replying("stream: V FOUND"));
    Start();
    for (const std::string& name : {std::string(256, 'n'), std::string(255, 'n'), "100%s%n%d.eml"s, ""s}) {
        EXPECT_EQ(Scan("x", name), name.substr(0, 255) + ": V");
        EXPECT_EQ(installed.LogMessages().back(), "Scan file - " + name.substr(0, 100) + " - 1");
    }
    const ScanFileInput data{"n", 1, reinterpret_cast<const uint8_t*>("x")};
    const ScanFileInput no_data{"n", 4'294'967'295, nullptr}, empty{"n", 0, nullptr};
    ScanFileResult no_detection{kUntouched, kUntouched, nullptr};
    const std::tuple<const ScanFileInput*, ScanFileResult*, uint32_t> cases[] = {
        {nullptr, &no_detection, 1002}, {&no_data, &no_detection, 1002},    {&data, nullptr, 1002},
        {&empty, nullptr, kUntouched},  {&data, &no_detection, kUntouched},
    };
    for (const auto& [input, result, error] : cases) {
        uint32_t told = kUntouched;
        for (uint32_t* const code : {&told, static_cast<uint32_t*>(nullptr)}) {
            EXPECT_EQ(plugin.scan_file(0, input, result, code, 0, 0), error == kUntouched);
        }
        EXPECT_EQ(told, error);
    }
    EXPECT_EQ(no_detection.reserved, kUntouched);
    EXPECT_EQ(no_detection.infected, 1u);
}

std::string g_waits;

// Connects for real; all other waits pass at once.
int WSAAPI PassTime(int, fd_set* read, fd_set* send, fd_set* refused, timeval* limit) {
    const char* const until = refused ? " connect " : read ? " read " : " send ";
    g_waits += until + std::to_string(limit->tv_sec) + "." + std::to_string(limit->tv_usec);
    return refused ? select(0, read, send, refused, limit) : 0;
}

TEST_F(ScanTest, GivesUpAnEngineThatStandsStillForTwentySeconds) {
    const ImportPatch patch(plugin.module, "select", PassTime);
    engine.Play([](Wire& wire) { wire.Hold(); });
    Start("servers=localhost:" + std::to_string(engine.Port()));
    EXPECT_EQ(Scan("x"), "failed 1003");
    EXPECT_EQ(Scan(std::string(64 << 20, 'x')), "failed 1002");
    EXPECT_THAT(plugin.VersionDetails(), HasSubstr("\nWaitForData timed out."));
    EXPECT_EQ(g_waits, " connect 1.0 read 20.0 connect 1.0 send 20.0 connect 20.0 read 20.0");
}

TEST(ScanMemory, LackOfItIsAnErrorAndNoMore) {
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"malloc", "failed 1001", "restarting kestoav process"},  // for the IDs of processes
        {"calloc", "failed 1001", "WSAENOBUFS"},                  // for the lookup, and then the record
        {"realloc", "failed 1003", "Unexpected response"},        // for the reply
    };
    for (const auto& [function, outcome, logged] : cases) {
        DrivenPlugin it;
        it.Start("servers=localhost:" + std::to_string(it.engine.Port()));
        it.system.Become({.starts = false, .look_takes = 1000});
        const ImportPatch patch(
            it.plugin.module, function, +[]() -> void* { return nullptr; });
        EXPECT_EQ(it.Scan("x"), outcome);
        EXPECT_THAT(ReadFile(it.installed.log), HasSubstr(logged));
        EXPECT_EQ(it.Start("servers=a b:1"), *function == 'c' ? 0 : ERROR_NOT_ENOUGH_MEMORY);
    }
}

TEST(Road, LeadsToARealClamd) {
    const char* const clamd_port = getenv("KESTOAV_TEST_CLAMD_PORT");
    if (clamd_port == nullptr) {
        GTEST_SKIP() << "KESTOAV_TEST_CLAMD_PORT names no clamd; scripts/test starts one";
    }
    InstalledPlugin it;
    it.installed.CreateLog();
    const uint16_t port = it.installed.PlaceBridge("127.0.0.1:" + std::string(clamd_port));
    ASSERT_EQ(it.Start("servers=127.0.0.1:" + std::to_string(port)), 0);  // and every default
    EXPECT_EQ(it.Scan(EicarTestString()), "mail.eml: Eicar-Test-Signature.UNOFFICIAL");
    EXPECT_EQ(it.Scan(std::string(3'000'001, '\0')), "clean");
    // Its signatures have no date, so the reply is shown as it is.
    EXPECT_THAT(it.plugin.VersionDetails(), StartsWith("KESTOAV Version 1.0.4\nClamAV"));
    EXPECT_THAT(it.installed.LogMessages(), Not(Contains(StartsWith("Unexpected"))));
    // 64 MB is the limit of the clamd that the tests use.
    EXPECT_EQ(it.Scan(std::string(65 << 20, 'x')), "failed 1003");
    EXPECT_EQ(it.installed.LogMessages().back(),
              "Unexpected response from KESTOAV - INSTREAM size limit exceeded. ERROR");
    it.installed.EndPrograms();
    EXPECT_EQ(it.Scan("small"), "clean");
}

}  // namespace
