// The bridge as a process, between scripted clamd servers and clients.
#include <gmock/gmock.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "tests/support/bridge_process.h"
#include "tests/support/fake_clamd.h"

namespace kesto {
namespace {

using std::string_literals::operator""s;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

const std::string kOk = "stream: OK\0"s;
const std::string kFound = "stream: Evil.Test FOUND\0"s;

std::string AllBytes() {
    std::string bytes;
    for (int i = 0; i < 256; ++i) {
        bytes += static_cast<char>(i);
    }
    return bytes;
}

// Records the last request it got.
struct Recorder {
    std::mutex guard;
    ScanRequestSeen last;
    ClamdScript Script() {
        return [this](Wire& wire) {
            ReceiveCommand(wire);
            if (const auto request = ReceiveScanRequest(wire)) {
                const std::lock_guard lock(guard);
                last = *request;
                wire.Send(kOk);
            }
        };
    }
};

TEST(BridgeScan, ShiftIsUndoneInDataOnly) {
    Recorder recorder;
    FakeClamd clamd(recorder.Script());
    BridgeProcess bridge(clamd.Address());
    EXPECT_EQ(Ask(bridge.Port(), WithNul("zINSTREAM") + ChunkStreamOf(ShiftedDown(AllBytes()), 100)), kOk);
    EXPECT_EQ(recorder.last.stream, ChunkStreamOf(AllBytes(), 100));

    EXPECT_EQ(Scan(bridge.Port(), ""), kOk);
    EXPECT_EQ(recorder.last.stream, ChunkStreamOf(""));
}

TEST(BridgeScan, DecryptOffPassesDataAsItIs) {
    Recorder recorder;
    FakeClamd clamd(recorder.Script());
    BridgeProcess bridge(clamd.Address(), "decrypt=0");
    EXPECT_EQ(Ask(bridge.Port(), WithNul("zINSTREAM") + ChunkStreamOf(AllBytes())), kOk);
    EXPECT_EQ(recorder.last.data, AllBytes());
}

TEST(BridgeScan, StreamCutIntoSingleBytesArrivesWhole) {
    Recorder recorder;
    FakeClamd clamd(recorder.Script());
    BridgeProcess bridge(clamd.Address());
    Wire client(ConnectToLoopback(bridge.Port()));
    for (const char c : WithNul("zINSTREAM") + ChunkStreamOf(ShiftedDown(AllBytes()), 90)) {
        ASSERT_TRUE(client.Send({&c, 1}));
    }
    EXPECT_EQ(client.ReceiveRest().bytes, kOk);
    EXPECT_EQ(recorder.last.data, AllBytes());
}

// A verdict is passed on as it is. What the plug-in would take for a clean file, but is none, is not.
TEST(BridgeScan, OnlyVerdictsKeepTheBeginningOfAVerdict) {
    const struct {
        std::string engine;
        std::string client;
    } cases[] = {
        {"stream: OK", "stream: OK"},
        {"stream: A %s%n name FOUND", "stream: A %s%n name FOUND"},
        {"stream:  FOUND", "stream:  FOUND"},
        {"stream: FOUND", "no verdict: stream: FOUND"},
        {"stream: OK ", "no verdict: stream: OK "},
        {"stream: Can't allocate memory ERROR", "no verdict: stream: Can't allocate memory ERROR"},
        {"stream: stream: OK", "no verdict: stream: stream: OK"},
        {"UNKNOWN COMMAND", "UNKNOWN COMMAND"},
        {"", ""},
    };
    std::atomic<size_t> next = 0;
    FakeClamd clamd([&](Wire& wire) { Replying(cases[next].engine)(wire); });
    BridgeProcess bridge(clamd.Address());
    for (next = 0; next < std::size(cases); ++next) {
        EXPECT_EQ(Scan(bridge.Port(), "data"), WithNul(cases[next].client));
    }
    EXPECT_THAT(bridge.Log(), HasSubstr("stream: Can't allocate memory ERROR"));
}

TEST(BridgeScan, EngineDyingAtAnyStageMeansNoReply) {
    const struct {
        const char* stage;
        ClamdScript script;
    } cases[] = {
        {"on accept", [](Wire& wire) { wire.Reset(); }},
        {"after the command", [](Wire& wire) { ReceiveCommand(wire); }},
        {"in the middle of the data",
         [](Wire& wire) {
             ReceiveCommand(wire);
             wire.Receive(100000);
             wire.Reset();
         }},
        {"before the reply",
         [](Wire& wire) {
             ReceiveCommand(wire);
             ReceiveScanRequest(wire);
         }},
        {"in the middle of the reply",
         [](Wire& wire) {
             ReceiveCommand(wire);
             ReceiveScanRequest(wire);
             wire.Send("stream: OK");
         }},
        {"in a reply that never ends",
         [](Wire& wire) {
             ReceiveCommand(wire);
             ReceiveScanRequest(wire);
             while (wire.Send(std::string(65536, 'x'))) {
             }
         }},
        {"after a clean verdict on half of the data",
         [](Wire& wire) {
             ReceiveCommand(wire);
             wire.Receive(100000);
             wire.Send(kOk);
             wire.ReceiveRest();
         }},
    };
    std::atomic<size_t> next = 0;
    FakeClamd clamd([&](Wire& wire) { cases[next].script(wire); });
    BridgeProcess bridge(clamd.Address());
    for (next = 0; next < std::size(cases); ++next) {
        EXPECT_EQ(Scan(bridge.Port(), std::string(4'000'000, 'd')), "") << cases[next].stage;
    }
    clamd.Kill();
    EXPECT_EQ(Scan(bridge.Port(), "data"), "");
    EXPECT_THAT(bridge.Log(), HasSubstr("no reply to 127.0.0.1:"));
}

TEST(BridgeScan, EarlySizeLimitReplySurvivesTheRestOfTheData) {
    FakeClamd clamd([](Wire& wire) {
        ReceiveCommand(wire);
        wire.Receive(100000);
        wire.Send("INSTREAM size limit exceeded. ERROR\0"s);
    });
    BridgeProcess bridge(clamd.Address());
    Wire client(ConnectToLoopback(bridge.Port()));
    const std::string stream = ChunkStreamOf(std::string(8'000'000, 'd'));
    EXPECT_TRUE(client.Send(WithNul("zINSTREAM") + stream.substr(0, 200000)));
    EXPECT_TRUE(WaitFor([&] { return clamd.Ended() == 1; }));
    EXPECT_TRUE(client.Send(stream.substr(200000)));
    EXPECT_EQ(client.ReceiveRest().bytes, "INSTREAM size limit exceeded. ERROR\0"s);
}

TEST(BridgeClient, BadFramingEndsThatConnectionOnly) {
    FakeClamd clamd(RealisticClamd());
    BridgeProcess bridge(clamd.Address());
    const std::string scan = WithNul("zINSTREAM");
    const std::string requests[] = {
        "zFOO\0"s,
        "zINSTREAMX\0"s,
        "nINSTREAM\n",
        "zinstream\0"s,
        "\0"s,
        "GET / HTTP/1.1\r\n\r\n",
        std::string(100000, 'z'),
        scan + "\x04\x00\x00\x01"s + std::string(1000, 'd'),  // one above the largest chunk
        scan + "\xFF\xFF\xFF\xFF"s,
        scan + "\x00\x00\x00\x01"s + "d" + "some text",
    };
    for (const std::string& request : requests) {
        EXPECT_EQ(Ask(bridge.Port(), request), "") << testing::PrintToString(request.substr(0, 30));
    }
    EXPECT_EQ(StatsValue(bridge.Port(), "refused"), std::size(requests));
    EXPECT_EQ(Scan(bridge.Port(), "some evil"), kFound);
}

TEST(BridgeClient, LeavingInTheMiddleEndsTheEnginesConnection) {
    std::atomic<unsigned> whole = 0;
    FakeClamd clamd([&](Wire& wire) {
        ReceiveCommand(wire);
        whole += ReceiveScanRequest(wire).has_value();
    });
    BridgeProcess bridge(clamd.Address());
    const std::string request = WithNul("zINSTREAM") + ChunkStreamOf(std::string(20000, 'd'));
    {
        Wire orderly(ConnectToLoopback(bridge.Port()));
        orderly.Send(request.substr(0, 9000));
        orderly.FinishSending();
        EXPECT_EQ(orderly.ReceiveRest().bytes, "");
        Wire hard(ConnectToLoopback(bridge.Port()));
        hard.Send(request.substr(0, 9000));
        EXPECT_TRUE(WaitFor([&] { return clamd.Accepted() == 2; }));
        hard.Reset();
    }
    EXPECT_TRUE(WaitFor([&] { return clamd.Ended() == 2; }));
    EXPECT_EQ(whole, 0u);
    EXPECT_EQ(StatsValue(bridge.Port(), "connections"), 1u);  // the one that asks
}

TEST(BridgeClient, SilenceEndsTheConnection) {
    FakeClamd clamd([](Wire& wire) { wire.ReceiveRest(); });
    BridgeProcess bridge(clamd.Address(), "idle=1");
    const std::string scan = WithNul("zINSTREAM");
    for (const std::string& said :
         {""s, "zINS"s, scan, scan + "\0\0\0\5ab"s, scan + ChunkStreamOf("all of it")}) {
        EXPECT_EQ(Ask(bridge.Port(), said), "") << testing::PrintToString(said);
    }
    EXPECT_EQ(StatsValue(bridge.Port(), "connections"), 1u);
}

TEST(BridgeClient, TwoHundredAtOnceAreServed) {
    FakeClamd clamd(RealisticClamd());
    BridgeProcess bridge(clamd.Address());
    const std::string request =
        WithNul("zINSTREAM") + ChunkStreamOf(ShiftedDown(std::string(30000, 'd') + "evil"));
    std::vector<Wire> clients;
    for (int i = 0; i < 200; ++i) {
        clients.emplace_back(ConnectToLoopback(bridge.Port()));
        ASSERT_TRUE(clients.back().Send(request.substr(0, 20000)));
    }
    EXPECT_EQ(StatsValue(bridge.Port(), "connections"), 201u);
    for (Wire& client : clients) {
        EXPECT_TRUE(client.Send(request.substr(20000)));
    }
    for (Wire& client : clients) {
        EXPECT_EQ(client.ReceiveRest().bytes, kFound);
    }
}

TEST(BridgeQuery, VersionAndPingComeFromTheFirstServerThatAnswers) {
    FakeClamd mute([](Wire& wire) { wire.Receive(5); });
    FakeClamd clamd(RealisticClamd());
    BridgeProcess bridge("127.0.0.1:" + std::to_string(FreePort()) + " " + mute.Address() + " " +
                         clamd.Address());
    EXPECT_EQ(Ask(bridge.Port(), WithNul("zPING")), WithNul("PONG"));
    EXPECT_EQ(mute.Accepted(), 1u);
    EXPECT_EQ(Ask(bridge.Port(), WithNul("zVERSION")),
              WithNul("ClamAV 1.4.3/27000/Mon Jan  1 00:00:00 2024"));
    clamd.Kill();
    EXPECT_EQ(Ask(bridge.Port(), WithNul("zPING")), "");
}

TEST(BridgeQuery, StatsTellScansAndServers) {
    FakeClamd clamd(RealisticClamd());
    const std::string missing = "127.0.0.1:" + std::to_string(FreePort());
    BridgeProcess bridge(missing + " " + clamd.Address());
    Scan(bridge.Port(), "clean");
    Scan(bridge.Port(), "evil");
    const std::string stats = Stats(bridge.Port());
    for (const char* line :
         {"\nscans 2\n", "\nclean 1\n", "\ninfected 1\n", "\nbytes 9\n", "\nconnections 1\n"}) {
        EXPECT_THAT(stats, HasSubstr(line));
    }
    EXPECT_THAT(stats, HasSubstr("upstream " + missing + " down replies 0 failures 1\n"));
    EXPECT_THAT(stats, HasSubstr("upstream " + clamd.Address() + " up replies 2 failures 0\n"));
    EXPECT_THAT(stats, EndsWith("\n\0"s));
}

TEST(BridgeFleet, ScansGoRound) {
    FakeClamd a(RealisticClamd()), b(RealisticClamd()), c(RealisticClamd());
    BridgeProcess bridge(a.Address() + " " + b.Address() + " " + c.Address());
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(Scan(bridge.Port(), "data"), kOk);
    }
    EXPECT_EQ(a.Accepted(), 3u);
    EXPECT_EQ(b.Accepted(), 3u);
    EXPECT_EQ(c.Accepted(), 3u);
}

TEST(BridgeFleet, ServerThatEndsBeforeTheDataIsReplaced) {
    FakeClamd dying([](Wire&) {});
    FakeClamd clamd(RealisticClamd());
    BridgeProcess bridge(dying.Address() + " " + clamd.Address());
    Wire client(ConnectToLoopback(bridge.Port()));
    client.Send(WithNul("zINSTREAM") + "\0\0\0\4"s);
    EXPECT_TRUE(WaitFor([&] { return clamd.Accepted() == 1; }));
    client.Send(ShiftedDown("evil") + "\0\0\0\0"s);
    EXPECT_EQ(client.ReceiveRest().bytes, kFound);
    EXPECT_EQ(dying.Accepted(), 1u);
}

TEST(BridgeFleet, ServerThatDoesNotAnswerIsPassedOverInTime) {
    UnansweredPort silent;
    FakeClamd clamd(RealisticClamd());
    BridgeProcess bridge("127.0.0.1:" + std::to_string(silent.port()) +
                         " localhost:" + std::to_string(clamd.Port()));
    EXPECT_EQ(Scan(bridge.Port(), "evil"), kFound);
    EXPECT_THAT(bridge.Log(), HasSubstr("connect timed out; tried again in 1 s"));
}

TEST(BridgeFleet, ScanWhoseDataWasSentIsNotRepeated) {
    FakeClamd dying([](Wire& wire) { wire.Receive(20000); });
    FakeClamd clamd(RealisticClamd());
    BridgeProcess bridge(dying.Address() + " " + clamd.Address());
    const std::string request = WithNul("zINSTREAM") + ChunkStreamOf(std::string(50000, 'd'));
    Wire client(ConnectToLoopback(bridge.Port()));
    client.Send(request.substr(0, 30000));
    EXPECT_TRUE(WaitFor([&] { return dying.Ended() == 1; }));
    client.Send(request.substr(30000));
    EXPECT_EQ(client.ReceiveRest().bytes, "");
    EXPECT_EQ(clamd.Accepted(), 0u);
    EXPECT_EQ(Scan(bridge.Port(), "evil"), kFound);
}

TEST(BridgeFleet, ServersInTheirPauseAreTriedWhenNoOtherIsLeft) {
    FakeClamd a(RealisticClamd()), b(RealisticClamd());
    BridgeProcess bridge(a.Address() + " " + b.Address());
    a.Kill();
    b.Kill();
    // Enough failures for pauses that outlast this test.
    EXPECT_TRUE(WaitFor([&] {
        EXPECT_EQ(Scan(bridge.Port(), "evil"), "");
        return bridge.Log().find("tried again in 2 s") != std::string::npos;
    }));
    b.Revive();
    EXPECT_EQ(Scan(bridge.Port(), "evil"), kFound);
    EXPECT_THAT(bridge.Log(), HasSubstr("upstream " + b.Address() + " up"));
}

TEST(BridgeFleet, MemberLostAndRegainedUnderLoadGivesNoWrongVerdict) {
    FakeClamd a(RealisticClamd()), b(RealisticClamd()), c(RealisticClamd());
    BridgeProcess bridge(a.Address() + " " + b.Address() + " " + c.Address());
    constexpr unsigned kClients = 4;
    const std::string filler(40000, 'd');
    std::atomic<bool> enough = false;
    std::atomic<unsigned> done = 0, lost = 0, wrong = 0;
    std::vector<std::thread> clients;
    for (unsigned i = 0; i < kClients; ++i) {
        clients.emplace_back([&, i] {
            for (unsigned n = i; !enough; ++n) {
                const std::string reply = Scan(bridge.Port(), n % 2 == 0 ? filler + "evil" : filler);
                lost += reply.empty();
                wrong += !reply.empty() && reply != (n % 2 == 0 ? kFound : kOk);
                ++done;
            }
        });
    }
    EXPECT_TRUE(WaitFor([&] { return done >= 40; }));
    b.Kill();
    const unsigned before = b.Accepted(), done_then = done;
    EXPECT_TRUE(WaitFor([&] { return done >= done_then + 40; }));
    b.Revive();
    EXPECT_TRUE(WaitFor([&] { return b.Accepted() >= before + 10; }));
    enough = true;
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(wrong, 0u);
    EXPECT_LE(lost, kClients);  // at most the scan that each had under way there
}

TEST(BridgeStop, RunningScanIsFinishedFirst) {
    std::atomic<bool> may_reply = false;
    FakeClamd clamd([&](Wire& wire) {
        ReceiveCommand(wire);
        ReceiveScanRequest(wire);
        WaitFor([&] { return may_reply.load(); });
        wire.Send(kOk);
    });
    BridgeProcess bridge(clamd.Address());
    Wire idle(ConnectToLoopback(bridge.Port()));
    Wire scanning(ConnectToLoopback(bridge.Port()));
    scanning.Send(WithNul("zINSTREAM") + ChunkStreamOf("data"));
    EXPECT_TRUE(WaitFor([&] { return clamd.Accepted() == 1; }));

    bridge.PressCtrlBreak();
    EXPECT_TRUE(WaitFor([&] { return Stats(bridge.Port()).empty(); }));
    EXPECT_TRUE(idle.ReceiveRest().ended);
    may_reply = true;
    EXPECT_EQ(scanning.ReceiveRest().bytes, kOk);
    EXPECT_EQ(bridge.WaitForExit(), 0u);
    EXPECT_THAT(bridge.Log(), HasSubstr(": ended\n"));
}

TEST(BridgeSettings, WhatCannotBeFollowedIsRefused) {
    const struct {
        const char* ini;
        const char* problem;
    } cases[] = {
        {"[bridge]\nlisten=localhost:3313\n", "listen=localhost:3313 is not"},
        {"[bridge]\nlisten=127.0.0.1:0\n", "listen=127.0.0.1:0 is not"},
        {"[bridge]\nlisten=\n", "listen= is not"},
        {"[bridge]\nupstreams=127.0.0.1:3310 127.0.0.1\n", "'127.0.0.1' is not host:port"},
        {"[bridge]\nupstreams=10.0.0.300:3310\n", "'10.0.0.300:3310' is not host:port"},
        {"[bridge]\nupstreams=host:65536\n", "'host:65536' is not host:port"},
        {"[bridge]\nupstreams=\n", "names no server"},
        {"[bridge]\ndecrypt=yes\n", "decrypt=yes is neither"},
        {"[bridge]\nidle=0\n", "idle=0 is not"},
        {"[bridge]\nidle=30s\n", "idle=30s is not"},
        {"[bridge]\nupsteams=127.0.0.1:3310\n", "unknown setting 'upsteams'"},
        {"listen=127.0.0.1:3313\n", "no [bridge] section"},
    };
    for (const auto& [ini, problem] : cases) {
        const BridgeProcess bridge = BridgeProcess::WithIni(ini);
        EXPECT_EQ(bridge.WaitForExit(), 1u) << ini;
        EXPECT_THAT(bridge.ErrorOutput(), HasSubstr(problem));
        EXPECT_THAT(bridge.Log(), HasSubstr(problem));
    }
}

TEST(BridgeSettings, PortInUseIsRefused) {
    FakeClamd clamd(RealisticClamd());
    BridgeProcess first(clamd.Address());
    const BridgeProcess second =
        BridgeProcess::WithIni("[bridge]\nlisten=127.0.0.1:" + std::to_string(first.Port()) + "\n");
    EXPECT_EQ(second.WaitForExit(), 1u);
    EXPECT_THAT(second.ErrorOutput(), HasSubstr("cannot listen on 127.0.0.1:"));
    EXPECT_EQ(Scan(first.Port(), "evil"), kFound);
}

}  // namespace
}  // namespace kesto
