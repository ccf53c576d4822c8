// What the bridge decides, with events and times handed in: no sockets, no clocks.
#include <gmock/gmock.h>

#include "bridge/framing.h"
#include "bridge/kept_stream.h"
#include "bridge/metrics.h"
#include "bridge/scan_policy.h"
#include "common/bridge_settings.h"

namespace kesto {
using namespace bridge;

namespace {

using namespace std::literals;
using testing::ElementsAre;
using testing::HasSubstr;

// Servers with the ports 1, 2 ..., and what one scan then does: the port of the server that is asked, "+" and
// the text of a trickle, "=" and a reply, "!" and why there is none.
struct World {
    explicit World(uint16_t servers) {
        std::vector<ServerAddress> names;
        for (int port = 1; port <= servers; ++port) {
            names.push_back(*ParseServerAddress("10.0.0.1:" + std::to_string(port)));
        }
        fleet.tell = [this](const std::string&, const std::string& line) { told = line; };
        SetServers(fleet, names, start);
    }
    Server& First() { return *fleet.servers.front(); }
    bool IsProbed(std::chrono::milliseconds at) {
        const bool due = ProbeIsDue(fleet, First(), start + at);
        due ? ProbeBegins(First(), start + at) : void();
        return due;
    }
    std::string Next(std::chrono::milliseconds at) {
        const char* const marks[] = {"", "+", "=", "!"};
        const auto [server, answer, outcome] = scan.Next(start + at);
        return server ? std::to_string(server->name.port)
                      : marks[static_cast<size_t>(answer.kind)] + answer.text;
    }

    const Time start{24h};
    Fleet fleet;
    std::string told;
    ScanPolicy scan{fleet, ScanLimits{60s, 120s}};
};

TEST(BridgeScan, AsksASecondServerBesideASilentOne) {
    World it(2);
    EXPECT_EQ(it.Next(0s), "");
    it.scan.EnoughCame();
    EXPECT_EQ(it.Next(0s), "1");
    it.scan.StreamEnded(it.start);
    EXPECT_EQ(it.Next(9900ms), "");
    EXPECT_EQ(it.Next(10s), "2");
    it.scan.Ended(0, EndOfReply("stream: no memory ERROR"), it.start + 14s);
    EXPECT_EQ(it.Next(14900ms), "");
    EXPECT_EQ(it.Next(15s), "+s");
    it.scan.Ended(1, EndOfReply("stream: Evil FOUND"), it.start + 16s);
    EXPECT_EQ(it.Next(16s), "=tream: Evil FOUND");
    EXPECT_EQ(it.Next(200s), "");
}

// It may have left, which what happens to these bytes tells.
TEST(BridgeScan, AClientThatHasClosedItsSideIsTried) {
    World it(1);
    it.scan.StreamEnded(it.start);
    EXPECT_EQ(it.Next(0s), "1");
    it.scan.FinishedSending(it.start + 500ms);
    for (const auto& [at, done] : {std::pair(3400ms, ""), {3500ms, "+s"}, {6500ms, "+t"}, {21400ms, ""}}) {
        EXPECT_EQ(it.Next(at), done);
    }
    EXPECT_EQ(it.Next(21500ms), "+r");
}

TEST(BridgeFleet, PausesDoubleAndAreShortWhileScansWait) {
    World it(1);
    const AttemptEnd refused{AttemptEnd::Kind::kUnreached, "refused"};
    NoteBroken(it.fleet, it.First(), refused, it.start, it.start);
    std::chrono::milliseconds at = 0s;
    for (const auto pause : {1s, 2s, 4s, 8s, 16s, 32s, 32s}) {
        EXPECT_FALSE(it.IsProbed(at + pause - 100ms)) << pause;
        EXPECT_TRUE(it.IsProbed(at += pause)) << pause;
        NoteProbe(it.fleet, it.First(), refused, it.start + at);
    }
    EXPECT_EQ(it.told, "upstream 10.0.0.1:1 down - refused; tried again in 32 s");
    it.fleet.scans_wait = [] { return true; };
    EXPECT_TRUE(it.IsProbed(at + 2s));
    NoteProbe(it.fleet, it.First(), EndOfReply("stream: OK"), it.start + at);
    EXPECT_EQ(it.told, "upstream 10.0.0.1:1 up");
    EXPECT_EQ(it.First().health.pause, 32s);  // no verdict yet
    NoteVerdict(it.First(), it.start + at);
    EXPECT_EQ(it.First().health.pause, 0s);
}

TEST(BridgeMetrics, TellWhatIsCounted) {
    World it(1);
    it.First().numbers.signatures = ReadSignatures("ClamAV 1.4.3/27000/Thu Jan  1 00:01:00 1970");
    Metrics metrics;
    for (size_t i = 0; i < kOutcomes; ++i) {
        for (size_t count = 0; count <= i; ++count) {
            CountScan(metrics, {static_cast<Outcome::Kind>(i)}, 0.3);
        }
    }
    const std::string text = MetricsText(metrics, {1, 2, 3, 4, 5}, it.fleet, it.start);
    for (const char* line : {"scans_total{outcome=\"clean\"} 1", "scans_total{outcome=\"infected\"} 2",
                             "scans_total{outcome=\"no_verdict\"} 3", "scans_total{outcome=\"no_reply\"} 4",
                             "scan_seconds_bucket{le=\"0.25\"} 0", "scan_seconds_bucket{le=\"0.5\"} 6",
                             "clients_limit 2", "keep_bytes 5", "upstream_up{upstream=\"10.0.0.1:1\"} 1",
                             "upstream_signatures_version{upstream=\"10.0.0.1:1\"} 27000",
                             "upstream_signatures_timestamp_seconds{upstream=\"10.0.0.1:1\"} 60"}) {
        EXPECT_THAT(text, HasSubstr(std::string("\nkestoav_") + line + "\n"));
    }
}

TEST(BridgeStream, IsKeptWhileThereIsRoomAndElseAWindow) {
    KeepRoom room;
    room.SetLimit(1'000'000);
    KeptStream stream(room);
    for (auto space = stream.Space(); !space.empty() && stream.Size() < 2'000'000; space = stream.Space()) {
        stream.Append(space.size());
    }
    EXPECT_TRUE(stream.IsWindow());
    EXPECT_LE(room.used, room.limit);
    EXPECT_GE(room.used, 700'000u);
}

TEST(BridgeFraming, CommandsAreKnownEarly) {
    for (const auto& [bytes, command] :
         {std::pair("zINSTREAM"sv, Command::kIncomplete), {"zPINGS"sv, Command::kUnknown}}) {
        EXPECT_EQ(FindCommand(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()).command, command);
    }
}

TEST(BridgeSettings, WhatCannotBeFollowedIsRefused) {
    const std::pair<const char*, std::vector<const char*>> cases[] = {
        // the problem, and lines that have it
        {"is not host:port",
         {"upstreams=127.0.0.010:1", "upstreams=127.0.0.1", "upstreams=host:65536", "upstreams=h:0",
          "upstreams=0x7f.1:1", "upstreams=a..b:1", "upstreams=a$b:1", "upstreams=10.1:1",
          "upstreams=[1::2::3]:1"}},
        {"is not the address of a server", {"upstreams=0.0.0.0:1", "upstreams=[::]:1"}},
        {"is given twice", {"upstreams=a:1 A:1", "upstreams=[::1]:1 [0:0:0:0:0:0:0:1]:1", "idle=3\nIdle=4"}},
        {"is the bridge itself",
         {"upstreams=127.0.0.2:3313", "upstreams=10.1.2.9:9\nlisten=127.0.0.1:9",
          "upstreams=127.0.0.2:3313\n[updater]"}},
        {"line 2: upstreams: '127.0.0.1:7' is the bridge itself until it is restarted",
         {"upstreams=127.0.0.1:7"}},
        {"names no server", {"upstreams="}},
        {"is not an IPv4 address and port", {"listen=localhost:3313", "listen=127.0.0.1:0", "listen="}},
        {"is neither 0 nor 1", {"decrypt=yes"}},
        {"is not a number", {"idle=0", "idle=3601", "idle=30 ; s", "keep=1025", "wait="}},
        {"holds a comment", {"logfile=a ;b"}},
        {"unknown setting 'upsteams'", {"upsteams=a:1"}},
        {"is neither the section", {"[other]"}},
    };
    const std::vector own{*ParseHost("10.1.2.9")};
    const auto listens = ParseServerAddress("127.0.0.1:7");
    for (const auto& [problem, lines] : cases) {
        for (const std::string line : lines) {
            const auto problems = ReadBridgeSettings("[bridge]\n" + line, own, listens).problems;
            EXPECT_THAT(problems, ElementsAre(HasSubstr(problem))) << line;
        }
    }
    for (const auto& [ini, problem] : {std::pair(""s, "bridge.ini has no [bridge] section"),
                                       {"idle=3\n[bridge]", "line 1: 'idle=3' stands above"},
                                       {"[\0b"s, "not ANSI text"}}) {
        EXPECT_THAT(ReadBridgeSettings(ini, own).problems, ElementsAre(HasSubstr(problem)));
    }
    const auto read = ReadBridgeSettings(
        "\xEF\xBB\xBF; comment\r\n[Bridge] ; x\r\rIDLE = "
        "\"20\"\nkeep=0\nwait=0\ndecrypt=0\nverdict=7\nupstreams=a.b:1 "
        "[::1]:2\t10.0.0.1:3\n"
        "[updater]\ncommand=\"a b\" --c=\"d\"\nsignatures=3\nidle=9\ntimeout=0",
        own);
    EXPECT_THAT(read.problems, ElementsAre());
    EXPECT_EQ(read.settings.command + std::to_string(read.settings.signatures), "\"a b\" --c=\"d\"3");
    EXPECT_THAT(read.updater_problems,
                ElementsAre(HasSubstr("line 13: unknown setting 'idle'"),
                            HasSubstr("timeout=0 is not a number of seconds from 1 to 86400")));
    EXPECT_EQ(AddressText(read.settings.upstreams.at(1)), "[::1]:2");
    EXPECT_THAT(SettingsText(read.settings), HasSubstr(" decrypt=0 idle=20 keep=0 wait=0 verdict=7 "));
}

}  // namespace
}  // namespace kesto
