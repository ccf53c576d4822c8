// What the bridge decides, with events and times handed in: no sockets, no clocks.
#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <sstream>

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

// Servers a, b, c ... and one scan for them. Its story is told in steps "SECONDS EVENT > WHAT IS THEN DONE":
// a letter for an attempt there, "+" and the text of a trickle, "=" and a reply, "!" and why there is none.
// Attempts count from 0. The texts of kTexts go by their short names.
struct Story {
    explicit Story(char last_server = 'b') {
        std::vector<ServerAddress> names;
        for (char name = 'a'; name <= last_server; ++name) {
            names.push_back(*ParseServerAddress(name + ":1"s));
        }
        fleet.tell = [this](const std::string&, const std::string& line) { told = line; };
        SetServers(fleet, names, now);
        for (const ServerPtr& server : fleet.servers) {
            NoteAddresses(fleet, *server, {*ParseServerAddress("10.0.0.1:1")}, "", now);
        }
    }
    Server& operator[](char name) { return *fleet.servers.at(static_cast<size_t>(name - 'a')); }
    Time At(double seconds) { return now = start + std::chrono::milliseconds(std::lround(seconds * 1000)); }

    std::string Next() {
        std::string done;
        for (;;) {
            auto [server, answer, outcome] = scan->Next(now);
            if (!server && answer.kind == Answer::Kind::kNothing) {
                return done;
            }
            for (const auto& [name, text] : kTexts) {
                answer.text = answer.text == text ? name : answer.text;
            }
            done += server ? server->name.host : "?+=!"[static_cast<int>(answer.kind)] + answer.text;
        }
    }
    void Event(const std::string& name, const std::string& whom, const std::string& reply) {
        const auto attempt = static_cast<size_t>(whom[0] - '0');
        using End = AttemptEnd::Kind;
        const std::map<std::string, AttemptEnd> ends = {{"well", EndOfReply("stream: OK")},
                                                        {"sick", EndOfReply("stream: no memory ERROR")},
                                                        {"refused", {End::kUnreached, "lost"}},
                                                        {"lost", {End::kBroken, "lost"}},
                                                        {"late", {End::kBroken, "lost"}}};
        if (ends.contains(name) && whom[0] >= 'a') {  // of a probe
            NoteProbe(fleet, (*this)[whom[0]], ends.at(name), now);
        } else if (ends.contains(name) || name == "reply") {
            if (name == "lost" || name == "reply") {
                scan->Progressed(attempt, true, now);
            }
            scan->Ended(attempt, name == "reply" ? EndOfReply(kTexts.at(reply)) : ends.at(name), now);
        } else if (name == "new" || name == "part") {
            scan.emplace(fleet, ScanLimits{60s, 120s});
            name == "new" ? scan->StreamEnded(now) : scan->EnoughCame();
        } else if (name == "end") {
            scan->StreamEnded(now);
        } else if (name == "closed") {
            scan->FinishedSending(now);
        } else if (name == "window") {
            scan->NotRepeatable();
        } else if (name == "spent") {
            fleet.beside.Add(now);
        } else if (name == "probes") {
            EXPECT_EQ(Probed(), whom) << now - start;
        }
    }
    std::string Probed() {
        std::string due;
        for (const ServerPtr& server : fleet.servers) {
            if (ProbeIsDue(fleet, *server, now)) {
                ProbeBegins(*server, now);
                due += server->name.host;
            }
        }
        return due;
    }
    void Tell(const std::string& story) {
        std::istringstream steps(story);
        for (std::string step; std::getline(steps, step, '|');) {
            std::string words[4], done;
            std::istringstream all(step);
            for (size_t i = 0; all >> done && done != ">"; words[i++] = done) {
            }
            At(std::stod(words[0]));
            Event(words[1], words[2], words[3]);
            done.clear();
            std::getline(all >> std::ws, done);
            ASSERT_EQ(Next(), done.substr(0, done.find_last_not_of(' ') + 1)) << step << " in " << story;
        }
    }

    const std::map<std::string, std::string> kTexts = {
        {"K", "stream: OK"},
        {"F", "stream: Evil FOUND"},
        {"E", "stream: no memory ERROR"},
        {"L", "INSTREAM size limit exceeded. ERROR"},
        {"NE", "no verdict: stream: no memory ERROR"},
        {"NONE", "no upstream server could be reached"},
        {"d:1 USED", "upstream d:1 lost; no further server may get it"}};
    const Time start{24h};
    Time now = start;
    Fleet fleet;
    std::string told;
    std::optional<ScanPolicy> scan;
};

TEST(BridgeScan, Stories) {
    const std::pair<char, const char*> cases[] = {
        // the last server, and the story
        // No server before enough of the stream, no reply before its end, nothing after the reply.
        {'a', "0 part > a | 1 reply 0 F > | 2 end > =F | 200 - >"},
        // The longest unused of the idle ones.
        {'c', "0 new > a | 0 reply 0 K > =K | 0 new > b | 0 reply 0 K > =K | 0 new > c"},
        // What is no verdict goes to the next server; three at most get the whole file.
        {'d', "0 new > a | 0 refused 0 > b | 0 lost 1 > c | 0 lost 2 > d | 0 lost 3 > !d:1 USED"},
        // Of tunnels that are dead five do not count while a server is left.
        {'f', "0 new > a |0 late 0 > b |0 late 1 > c |0 late 2 > d |0 late 3 > e |0 late 4 > f"},
        // Clean bytes tell a server's fault from the file's.
        {'b',
         "0 new > a | 0 reply 0 E > b | 0 probes a > | 0 well a > | 0 reply 1 E > | 0 probes b >"
         "| 0 sick b > =NE"},
        // What was said before the server went down says nothing of it now.
        {'b', "0 new > a | 0 reply 0 E > b | 0 probes a > | 0 refused 1 > | 1 sick a > | 3 well a > a"},
        // A second server beside a silent one, and the first verdict counts.
        {'c', "0 new > a |9.9 - > |10 - > b |14 reply 0 E > |15 - > +s |16 reply 1 F > =tream: Evil FOUND"},
        // Or one that has nothing to do, although the share of scans that may ask a further one is used up.
        {'b', "0 new > a | 9 spent - > | 10 - > b"},
        // No reply but a verdict behind a trickle.
        {'a', "0 new > a | 15 - > +s | 16 reply 0 L > !no upstream server gave a verdict"},
        // Waits from when the last server went down, and until every one was asked since the scan came.
        {'b',
         "0 new > a | 0 refused 0 > b | 10 refused 1 > | 69 - > +s+t+r+e | 70 - > !NONE "
         "| 71 new > | 71 probes ab > | 71 refused a > | 71 refused b > !NONE"},
        // A window that has let go of its beginning.
        {'b', "0 new > a | 0 window > | 11 - >"},
        // A client that has closed its side is tried, for it may have left.
        {'a', "0 new > a | 0.5 closed > | 3.4 - > | 3.5 - > +s | 6.5 - > +t | 21 - > | 21.5 - > +r"},
    };
    for (const auto& [last_server, story] : cases) {
        Story(last_server).Tell(story);
    }
}

TEST(BridgeFleet, PausesDoubleAndAreShortWhileScansWait) {
    Story world('a');
    const auto probed = [&](double seconds) { return world.At(seconds), !world.Probed().empty(); };
    const auto broken = [&] {
        NoteBroken(world.fleet, world['a'], {AttemptEnd::Kind::kBroken, "refused"}, world.now, world.now);
    };
    broken();
    world.At(0.5);
    broken();  // with the first: no new pause
    double at = 0;
    for (const int pause : {1, 2, 4, 8, 16, 32, 32}) {
        EXPECT_FALSE(probed(at + pause - 0.1)) << pause;
        EXPECT_TRUE(probed(at += pause)) << pause;
        EXPECT_FALSE(probed(at + 1));  // under way
        world.At(at);
        world.Event("refused", "a", "");
    }
    EXPECT_EQ(world.told, "upstream a:1 down - lost; tried again in 32 s");
    world.fleet.scans_wait = [] { return true; };
    EXPECT_TRUE(probed(at + 2));
    world.Event("well", "a", "");
    EXPECT_EQ(world.told, "upstream a:1 up");
    broken();
    EXPECT_EQ(world['a'].health.pause, 32s);  // no verdict yet
    world.Event("well", "a", "");
    world.Tell("200 new > a | 200 reply 0 K > =K");
    EXPECT_EQ(world['a'].health.pause, 0s);
}

TEST(BridgeMetrics, TellWhatIsCounted) {
    Story world('b');
    world['b'].numbers.signatures = ReadSignatures("ClamAV 1.4.3/27000/Thu Jan  1 00:01:00 1970");
    Metrics metrics;
    for (size_t i = 0; i < kOutcomes; ++i) {
        for (size_t count = 0; count <= i; ++count) {
            CountScan(metrics, {static_cast<Outcome::Kind>(i)}, 0.3);
        }
    }
    const std::string text = MetricsText(metrics, {1, 2, 3, 4, 5}, world.fleet, world.now);
    for (const char* line :
         {"scans_total{outcome=\"clean\"} 1", "scans_total{outcome=\"infected\"} 2",
          "scans_total{outcome=\"no_verdict\"} 3", "scans_total{outcome=\"no_reply\"} 4",
          "scan_seconds_bucket{le=\"0.25\"} 0", "scan_seconds_bucket{le=\"0.5\"} 6", "scan_seconds_count 6",
          "clients 1", "clients_limit 2", "scans_waiting 3", "kept_bytes 4", "keep_bytes 5",
          "upstream_up{upstream=\"a:1\"} 1", "upstream_signatures_version{upstream=\"b:1\"} 27000",
          "upstream_signatures_timestamp_seconds{upstream=\"b:1\"} 60"}) {
        EXPECT_THAT(text, HasSubstr(std::string("\nkestoav_") + line + "\n"));
    }
}

TEST(BridgeStream, IsKeptWhileThereIsRoomAndElseAWindow) {
    const auto fill = [](KeptStream& stream, size_t size) {
        size_t done = 0;
        for (size_t part = 1; done < size && part > 0; done += part) {
            const auto space = stream.Space();
            part = std::min(space.size(), size - done);
            std::fill_n(space.begin(), part, uint8_t{0});
            stream.Append(part);
        }
        return done;
    };
    const auto held = [](const KeptStream& stream, uint64_t from) {
        for (auto piece = stream.Piece(from); !piece.empty(); piece = stream.Piece(from)) {
            from += piece.size();
        }
        return from == stream.Size();
    };
    KeepRoom room;
    room.SetLimit(1'000'000);
    {
        KeptStream large(room), window(room);
        EXPECT_EQ(fill(large, 700'000), 700'000u);
        large.Release(700'000);
        EXPECT_TRUE(held(large, 0) && !large.IsWindow());
        const size_t taken = fill(window, 1'000'000);
        EXPECT_TRUE(held(window, 0) && window.IsWindow());
        EXPECT_LE(room.used, room.limit);
        window.Release(taken);
        EXPECT_TRUE(window.Piece(0).empty());
        EXPECT_GE(fill(window, 1'000'000), 64'000u);
        EXPECT_TRUE(held(window, taken));
    }
    EXPECT_EQ(room.used, 0u);
    EXPECT_FALSE(room.spare.empty());
    for (int i = 0; i < 100; ++i) {
        room.ShrinkSpare();
    }
    EXPECT_TRUE(room.spare.empty());
}

TEST(BridgeFraming, CommandsAreKnownEarlyAndLengthsHaveALimit) {
    const std::pair<std::string, Command> commands[] = {
        {"zINSTREAM", Command::kIncomplete}, {"zINSTREAM\0"s, Command::kScan}, {"zPINGS", Command::kUnknown}};
    for (const auto& [bytes, command] : commands) {
        EXPECT_EQ(FindCommand(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()).command, command);
    }
    std::pair<std::string, StreamState> lengths[] = {{"\0\0\0\0"s, StreamState::kEnded},
                                                     {"\4\0\0\0"s, StreamState::kGoesOn},
                                                     {"\4\0\0\1"s, StreamState::kInvalid}};
    for (auto& [length, state] : lengths) {
        ChunkStream stream;
        EXPECT_EQ(FollowChunks(stream, reinterpret_cast<uint8_t*>(length.data()), 4, true).state, state);
    }
}

TEST(BridgeSettings, WhatCannotBeFollowedIsRefused) {
    const std::pair<const char*, std::vector<const char*>> cases[] = {
        // the problem, and lines that have it
        {"is not host:port",
         {"upstreams=127.0.0.010:1", "upstreams=127.0.0.1", "upstreams=host:65536", "upstreams=h:0",
          "upstreams=0x7f.1:1", "upstreams=1.2.3.4.5:1", "upstreams=a..b:1", "upstreams=a$b:1",
          "upstreams=a-label-of-64-characters-a-label-of-64-characters-a-label-of-64-:1", "upstreams=10.1:1",
          "upstreams=::1:1", "upstreams=[1::2::3]:1"}},
        {"is not the address of a server",
         {"upstreams=0.0.0.0:1", "upstreams=255.255.255.255:1", "upstreams=[::]:1", "upstreams=224.0.0.1:1"}},
        {"is given twice", {"upstreams=a:1 A:1", "upstreams=[::1]:1 [0:0:0:0:0:0:0:1]:1", "idle=3\nIdle=4"}},
        {"is the bridge itself",
         {"upstreams=127.0.0.2:3313", "upstreams=10.1.2.9:9\nlisten=127.0.0.1:9",
          "upstreams=127.0.0.2:3313\n[updater]"}},
        {"line 2: upstreams: '127.0.0.1:7' is the bridge itself until it is restarted",
         {"upstreams=127.0.0.1:7"}},
        {"names no server", {"upstreams="}},
        {"is not an IPv4 address and port",
         {"listen=localhost:3313", "listen=127.0.0.1:0", "listen=224.0.0.1:1", "listen="}},
        {"is neither 0 nor 1", {"decrypt=yes"}},
        {"is not a number", {"idle=0", "idle=3601", "idle=30 ; s", "keep=1025", "wait="}},
        {"holds a comment", {"logfile=a ;b"}},
        {"unknown setting 'upsteams'", {"upsteams=a:1"}},
        {"is not a setting", {"prose"}},
        {"is neither the section", {"[other]"}},
        {"a second section", {"[bridge]"}},
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
                                       {"\xEF\xBB\xBF[bridge]", "line 1: begins with a byte order mark"},
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
