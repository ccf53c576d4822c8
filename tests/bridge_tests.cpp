// The bridge as a process, between scripted servers and clients.
#include <gmock/gmock.h>

#include <numeric>

#include "tests/support/bridge_process.h"

namespace kesto {
namespace {

using namespace std::literals;
using namespace testing;

const std::string kOk = WithNul("stream: OK"), kScan = WithNul("zINSTREAM");

TEST(BridgeScan, ShiftIsUndoneInDataOnly) {
    std::string bytes(256, '\0');
    std::iota(bytes.begin(), bytes.end(), '\0');
    for (const bool decrypt : {true, false}) {
        ScriptedEngine clamd(Realistic());
        const BridgeProcess bridge(clamd.Address(), decrypt ? "" : "decrypt=0");
        Wire client(ConnectToLoopback(bridge.port));
        for (const char c : kScan + ChunkStreamOf(decrypt ? ShiftedDown(bytes) : bytes, 100)) {
            ASSERT_TRUE(client.Send({&c, 1}));
        }
        EXPECT_EQ(client.Receive(), kOk);
        EXPECT_TRUE(client.Ended());
        EXPECT_EQ(clamd.Requests().at(0).raw, kScan + ChunkStreamOf(bytes, 100));
    }
}

// Through the plug-in, which waits 20 s for a byte: one server hangs, the other takes long.
TEST(BridgeScan, VerdictAfterTwentyOneSecondsReachesThePlugIn) {
    ScriptedEngine hanging(kDeaf), slow([](Wire&wire) {
        Sleep(wire.ReceiveRequest().data.size() > 100 ? 11'500 : 0);  // not for a probe
        wire.ReplyAndHangUp("stream: Slow FOUND");
    });
    InstalledPlugin it;
    const uint16_t port = it.installed.PlaceBridge(hanging.Address() + " " + slow.Address());
    ASSERT_EQ(it.Start(Servers(port)), 0);
    const DWORD start = GetTickCount();
    EXPECT_EQ(it.Scan(std::string(1'000'000, 'd')), "mail.eml: Slow");
    EXPECT_GE(GetTickCount() - start, 21'000u);
}

TEST(BridgeFleet, QueriesGoToWhoeverAnswers) {
    ScriptedEngine mute(DyingAfter(5)), early(DyingAfter(100'000, true, kFound)), clamd(Realistic());
    const BridgeProcess bridge(mute.Address() + " localhost:" + std::to_string(clamd.Port()));
    for (int i = 0; i < 300; ++i) {
        Wire(ConnectToLoopback(bridge.port)).Reset();
    }
    EXPECT_EQ(bridge.Command("zPING"), WithNul("PONG"));
    EXPECT_EQ(bridge.Scan("VIRUS"), kFound);
    EXPECT_THAT(bridge.Command("zSTATS"),
                AllOf(HasSubstr("\nkestoav_scans_total{outcome=\"infected\"} 1\n"),
                      HasSubstr("\nkestoav_upstream_replies_total{upstream=\"localhost:")));
    // Its reset comes with its reply.
    EXPECT_EQ(BridgeProcess(early.Address()).Scan(std::string(3'000'000, 'd')), kFound);
}

TEST(BridgeEnd, ComesAfterTheRunningScans) {
    ScriptedEngine clamd(ReplyingBytes("", Then::kHolds));
    BridgeProcess bridge(clamd.Address(), "idle=1");
    Wire scanning(ConnectToLoopback(bridge.port)), trickling(ConnectToLoopback(bridge.port));
    scanning.Send(ScanRequestOf("data"));
    trickling.Send(kScan);
    EXPECT_TRUE(WaitFor([&] { return clamd.Accepted() == 1; }));
    Wire late(ConnectToLoopback(bridge.port));
    EXPECT_EQ(bridge.Restart().out, "Restarted\n");
    EXPECT_THAT(bridge.Command("zSTATS"), HasSubstr("\nkestoav_worker_starts_total 2\n"));
    clamd.Play(Realistic());
    EXPECT_TRUE(late.Send(ScanRequestOf("VIRUS")));
    EXPECT_EQ(late.Receive(), kFound);
    EXPECT_TRUE(WaitFor([&] { return !trickling.Send("\0\0\0\1d"s) || (Sleep(50), false); }));
    EXPECT_EQ(bridge.Log().find("ended"), std::string::npos);
    scanning.Reset();
    EXPECT_TRUE(bridge.Tells("ended"));
}

TEST(BridgeStart, TakesUpChangedSettings) {
    ScriptedEngine clean, clamd(Realistic());
    const BridgeProcess bridge(clean.Address());
    bridge.WriteIni("[bridge]\nidle=soon\nupstreams=" + clamd.Address());
    EXPECT_TRUE(bridge.Tells("not followed - bridge.ini line 2: idle=soon is not"));
    bridge.WriteIni("[bridge]\nlisten=127.0.0.1:9\nupstreams=127.0.0.1:" + std::to_string(bridge.port));
    EXPECT_TRUE(bridge.Tells("is the bridge itself until it is restarted"));
    EXPECT_EQ(bridge.Scan("VIRUS"), kOk);
    bridge.WriteIni("[bridge]\ndecrypt=0\nlogfile=none\\x.log\nupstreams=" + clamd.Address());
    EXPECT_TRUE(bridge.Tells("cannot write the log file none\\x.log"));
    EXPECT_TRUE(bridge.Tells("taken up by a restart only"));
    EXPECT_EQ(bridge.Scan("VIRUS"), kFound);
}

TEST(BridgeStart, WaitsForThePortAndOpensItsLogAnew) {
    BridgeProcess bridge("127.0.0.1:1", "logfile=own.log"), second("127.0.0.1:1", "logfile=own.log");
    std::filesystem::rename(bridge.home.engine_folder / "own.log", bridge.home.top / "moved.log");
    second.run.reset();
    second.WriteIni("[bridge]\nlogfile=own.log\nlisten=127.0.0.1:" + std::to_string(bridge.port));
    second.run.emplace(second.home.engine_folder / second.kProgram);
    EXPECT_TRUE(second.Tells("the port is in use (10048)", "own.log"));
    EXPECT_EQ(bridge.Restart().status, 0u);
    EXPECT_TRUE(bridge.Tells("ending after", "own.log"));
    bridge.run.reset();
    EXPECT_TRUE(second.Tells("listening on 127.0.0.1:" + std::to_string(bridge.port), "own.log"));
}

}  // namespace
}  // namespace kesto
