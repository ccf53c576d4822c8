// The bridge as a process, between scripted servers and clients.
#include <gmock/gmock.h>

#include <list>
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

// What a client gets where no other server gives a verdict; where another one does, that counts.
TEST(BridgeScan, OnlyWholeVerdictsAreVerdicts) {
    const std::pair<EngineScript, std::string> cases[] = {
        {Replying("stream: no memory ERROR"), WithNul("no verdict: stream: no memory ERROR")},
        {Replying("stream: OK "), WithNul("no verdict: stream: OK ")},
        {Replying("UNKNOWN COMMAND"), WithNul("UNKNOWN COMMAND")},
        {DyingAfter(100000, true, WithNul("INSTREAM limit. ERROR")), WithNul("INSTREAM limit. ERROR")},
        {DyingAfter(100000, true, kOk), ""},
        {DyingAfter(0, true), ""},
        {DyingAfter(10), ""},
        {DyingAfter(100000, true), ""},
        {ReplyingBytes("", Then::kHangsUp), ""},
        {ReplyingBytes("stream: OK", Then::kResets), ""},
        {Endless("stream: OK"), ""},
    };
    const std::string data = std::string(3'000'000, 'd') + "VIRUS";
    for (const auto& [engine, alone] : cases) {
        ScriptedEngine sick(engine), clamd(Realistic());
        const BridgeProcess on_its_own(sick.Address(), "wait=0");
        EXPECT_EQ(on_its_own.Scan(data), alone) << on_its_own.Log();
        const BridgeProcess both(sick.Address() + " " + clamd.Address());
        EXPECT_EQ(both.Scan(data), kFound) << alone << both.Log();
    }
    ScriptedEngine dying(DyingAfter(500'000)), clamd(Realistic());  // in the middle of what is not kept
    EXPECT_EQ(BridgeProcess(dying.Address() + " " + clamd.Address(), "keep=0").Scan(data), "");
    ScriptedEngine early(DyingAfter(100000, true, kFound));
    EXPECT_EQ(BridgeProcess(early.Address()).Scan(data), kFound);
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

TEST(BridgeScan, WaitsForAServer) {
    ScriptedEngine clamd(Realistic());
    BridgeProcess bridge(clamd.Address() + " localhost:" + std::to_string(FreePort()), "keep=0");
    clamd.Kill();
    Wire client(ConnectToLoopback(bridge.port)), gone(ConnectToLoopback(bridge.port));
    client.Send(ScanRequestOf(std::string(300'000, 'd') + "VIRUS"));
    gone.Send(ScanRequestOf("data"));
    const auto stats = [&](const char* line) {
        return WaitFor([&] { return bridge.Command("zSTATS").find(line) != std::string::npos; });
    };
    EXPECT_TRUE(stats("\nkestoav_scans_waiting 2\n"));
    gone.Reset();
    EXPECT_TRUE(stats("\nkestoav_scans_waiting 1\n"));
    EXPECT_TRUE(stats("\nkestoav_scans_total{outcome=\"left\"} 1\n"));
    EXPECT_EQ(bridge.Restart().status, 0u);
    EXPECT_TRUE(bridge.Tells("ending"));
    clamd.Revive();
    EXPECT_EQ(client.Receive(), kFound);
    EXPECT_TRUE(bridge.Tells("ended"));
    EXPECT_TRUE(bridge.Tells("upstream " + clamd.Address() + " up"));
}

TEST(BridgeFleet, ServersLostAndRegainedUnderLoadLoseNoScan) {
    const EngineScript well = Realistic();
    ScriptedEngine clamds[] = {ScriptedEngine(well), ScriptedEngine(well), ScriptedEngine(well)};
    const BridgeProcess bridge(clamds[0].Address() + " " + clamds[1].Address() + " " + clamds[2].Address());
    const std::string filler(40000, 'd');
    std::atomic<bool> enough = false;
    std::atomic<unsigned> done = 0, wrong = 0;
    std::vector<std::jthread> clients;
    for (unsigned i = 0; i < 4; ++i) {
        clients.emplace_back([&, i] {
            for (unsigned n = i; !enough; ++n, ++done) {
                const bool evil = n % 2 == 0;
                wrong += bridge.Scan(evil ? filler + "VIRUS" : filler) != (evil ? kFound : kOk);
            }
        });
    }
    for (ScriptedEngine& clamd : clamds) {
        const auto more = [&] { return WaitFor([&, from = done.load()] { return done >= from + 40; }); };
        EXPECT_TRUE(more());
        clamd.Kill();
        EXPECT_TRUE(more());
        clamd.Revive();
        EXPECT_TRUE(WaitFor([&, from = clamd.Accepted()] { return clamd.Accepted() >= from + 5; }));
    }
    enough = true;
    clients.clear();
    EXPECT_EQ(wrong, 0u) << bridge.Log();
}

TEST(BridgeFleet, QueriesGoToWhoeverAnswers) {
    ScriptedEngine mute(DyingAfter(5)), clamd(Realistic());
    const BridgeProcess bridge(mute.Address() + " localhost:" + std::to_string(clamd.Port()));
    EXPECT_EQ(bridge.Command("zPING"), WithNul("PONG"));
    EXPECT_EQ(bridge.Command("zVERSION"), WithNul(ClamdTraits().version));
    EXPECT_EQ(bridge.Scan("VIRUS"), kFound);
    EXPECT_THAT(bridge.Command("zSTATS"),
                AllOf(HasSubstr("\nkestoav_scans_total{outcome=\"infected\"} 1\n"),
                      HasSubstr("\nkestoav_bytes_total 5\n"), HasSubstr("\nkestoav_clients 1\n"),
                      HasSubstr("\nkestoav_scan_seconds_count 1\n"),
                      HasSubstr("\nkestoav_upstream_replies_total{upstream=\"localhost:")));
}

TEST(BridgeClient, WhoeverBreaksTheRulesHurtsNobodyElse) {
    std::atomic<unsigned> whole = 0;
    ScriptedEngine clamd([&](Wire& wire) {
        Realistic()(wire);
        whole += wire.ReceiveRequest().whole;
    });
    const BridgeProcess bridge(clamd.Address(), "idle=2\nclients=40");
    const std::string too_long = kScan + "\4\0\0\1"s + std::string(1000, 'd'), cut = kScan + "\0\0\0\5ab"s;
    const std::string refused[] = {
        "GET / HTTP/1.1\r\n\r\n", std::string(100000, 'z'), too_long, "zINS", kScan, cut};
    for (const std::string& request : refused) {
        EXPECT_EQ(Ask(bridge.port, request), "") << testing::PrintToString(request.substr(0, 30));
    }
    EXPECT_THAT(bridge.Command("zSTATS"), HasSubstr("\nkestoav_refused_total 6\n"));
    for (int i = 0; i < 300; ++i) {
        Wire(ConnectToLoopback(bridge.port)).Reset();
    }
    std::list<Wire> crowd;  // more than there are places
    for (int i = 0; i < 60; ++i) {
        crowd.emplace_back(ConnectToLoopback(bridge.port)).Send(kScan);
    }
    EXPECT_EQ(bridge.Scan("VIRUS"), kFound);
    EXPECT_EQ(clamd.Accepted(), 1u);
    EXPECT_THAT(bridge.Log(), HasSubstr("too slow while others wait for a place"));

    Wire leaving(ConnectToLoopback(bridge.port)), slow(ConnectToLoopback(bridge.port));
    const std::string request = ScanRequestOf(std::string(100'000, 'd') + "VIRUS");
    leaving.Send(request.substr(0, 90'000));
    EXPECT_TRUE(WaitFor([&] { return clamd.Accepted() == 2; }));
    leaving.FinishSending();
    EXPECT_TRUE(WaitFor([&] { return clamd.Ended() == 2; }));
    EXPECT_EQ(whole, 1u);
    for (size_t at = 0; at < request.size(); at += 15'000, Sleep(600)) {  // twice as long as `idle` in all
        EXPECT_TRUE(slow.Send(std::string_view(request).substr(at, 15'000)));
    }
    EXPECT_EQ(slow.Receive(), kFound);
    EXPECT_TRUE(slow.Send("late"));
    Sleep(100);
    EXPECT_TRUE(slow.Send("later"));  // is still read: no reset overtakes a reply
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
