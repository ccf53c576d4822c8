// What the bridge decides, with events and times handed in: no sockets, no clocks.
#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <list>
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
        const char of = whom[0];
        const auto attempt = static_cast<size_t>(of - '0');
        using End = AttemptEnd::Kind;
        const std::map<std::string, AttemptEnd> ends = {
            {"well", EndOfReply("stream: OK")},     {"sick", EndOfReply("stream: no memory ERROR")},
            {"refused", {End::kUnreached, "lost"}}, {"silent", {End::kSilent, "lost"}},
            {"cut", {End::kBroken, "lost"}},        {"lost", {End::kBroken, "lost"}},
            {"late", {End::kBroken, "lost"}}};
        if (ends.contains(name) && of >= 'a') {  // of a probe
            NoteProbe(fleet, (*this)[of], ends.at(name), now);
        } else if (ends.contains(name)) {
            if (name != "refused" && name != "late") {
                scan->Progressed(attempt, name == "lost", now);
            }
            scan->Ended(attempt, ends.at(name), now);
        } else if (name == "reply" || name == "took") {
            scan->Progressed(attempt, true, now);
            if (name == "reply") {
                scan->Ended(attempt, EndOfReply(kTexts.at(reply)), now);
            }
        } else if (name == "new" || name == "part") {
            scan.emplace(fleet, ScanLimits{60s, 120s});
            name == "new" ? scan->StreamEnded(now) : scan->EnoughCame();
        } else if (name == "end") {
            scan->StreamEnded(now);
        } else if (name == "closed") {
            scan->FinishedSending(now);
        } else if (name == "window") {
            scan->NotRepeatable();
        } else if (name == "works") {
            NoteVerdict((*this)[of], now);
        } else if (name == "spent") {
            fleet.beside.Add(now);
        } else if (name == "out") {
            SetServers(fleet, {fleet.servers.back()->name}, now);
        } else if (name == "two") {
            NoteAddresses(fleet, (*this)[of],
                          {*ParseServerAddress("10.0.0.1:1"), *ParseServerAddress("10.0.0.2:1")}, "", now);
        } else if (name == "up" || name == "down") {
            EXPECT_EQ(IsUp((*this)[of]), name == "up") << now - start;
        } else if (name == "failures") {
            EXPECT_EQ(std::to_string((*this)[of].numbers.failures), reply);
        } else if (name == "probes") {
            EXPECT_EQ(Probed(), whom == "-" ? "" : whom) << now - start;
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

    const std::map<std::string, std::string> kTexts = {{"K", "stream: OK"},
                                                       {"F", "stream: Evil FOUND"},
                                                       {"E", "stream: no memory ERROR"},
                                                       {"L", "INSTREAM size limit exceeded. ERROR"},
                                                       {"NE", "no verdict: stream: no memory ERROR"},
                                                       {"NONE", "no upstream server could be reached"}};
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
        {'d',
         "0 new > a | 0 refused 0 > b | 0 lost 1 > c | 0 lost 2 > d | 0 lost 3 > !upstream d:1 lost; no "
         "further server may get it"},
        {'f',
         "0 new > a |0 cut 0 > b |0 cut 1 > c |0 cut 2 > d |0 cut 3 > e |0 cut 4 > !upstream e:1 lost; no "
         "further server may get it"},
        {'e',
         "0 new > a |0 reply 0 E > b |0 reply 1 E > c |0 reply 2 L > d |0 reply 3 E > e |0 reply 4 E >"
         "| 0 probes abde > | 0 well a > | 0 well b > | 0 well d > | 0 well e > =NE"},
        // Clean bytes tell a server's fault from the file's.
        {'b',
         "0 new > a | 0 reply 0 E > b | 0 probes a > | 0 well a > | 0 reply 1 E > | 0 probes b >"
         "| 0 sick b > =NE | 0 up a > | 0 down b >"},
        {'b', "0 new > a | 0 reply 0 L > b | 0 probes - >"},
        // One that broke off may have come back.
        {'b', "0 new > a | 0 lost 0 > b | 0 refused 1 > | 1 well b > b | 1 reply 2 F > =F"},
        // A second server beside a silent one, and the first verdict counts.
        {'c', "0 new > a |9.9 - > |10 - > b |14 reply 0 E > |15 - > +s |16 reply 1 F > =tream: Evil FOUND"},
        {'b', "0 new > a | 10 - > b | 11 reply 0 K > =K"},
        {'b', "0 part > a | 5 end > | 14 - > | 15 - > b"},
        // Or one that has nothing to do, although the share of scans that may ask a further one is used up.
        {'b', "0 new > a | 9 spent - > | 10 - > b"},
        // A silent one is probed: the busy and the last one stay up, and one at a time is suspected.
        {'c',
         "0 new > a | 10 - > b | 10 probes a > | 20 - > c+s | 20 probes - > | 29 works a > | 30 silent a > +t"
         "| 30 up a > | 30 probes b >"},
        {'b',
         "0 new > a | 10 - > b | 10 probes a > | 30 silent a > +s+t | 30 down a > | 30 up b >"
         "| 30 probes b > | 50 silent b > +r | 50 up b > | 50 probes ab >"},
        {'b', "0 new > a | 10 - > b | 10 probes a > | 11 well a > | 25 - > +s | 25 probes b >"},
        {'a', "0 new > a | 10 - > | 10 probes a > | 11 well a > | 29 - > +s | 29 probes - >"},
        {'a', "0 part > a | 30 silent 0 > a | 60 silent 1 > a | 90 silent 2 > | 90 down a >"},
        {'a', "0 new > a | 0 reply 0 K > =K | 59 probes - > | 60 probes a > | 60 refused a > | 60 down a >"},
        // At another address it is another server.
        {'a',
         "0 new > a | 0 two a > | 10 - > | 10 probes a > | 30 silent a > a+s+t | 31 reply 1 K > =ream: OK"},
        {'a',
         "0 new > a | 0 two a > | 0 reply 0 E > | 0 probes a > | 1 sick a > | 2 probes a > | 2 well a > a"},
        // What was lost long ago says nothing of a server that has worked since.
        {'b', "0 new > a | 0 took 0 > | 5 works a > | 11 late 0 > b | 11 up a >"},
        {'b', "0 new > a | 0 took 0 > | 5 works a > | 9 late 0 > b | 9 down a >"},
        // No reply but a verdict behind a trickle, and an end in time.
        {'a',
         "0 new > a |14.9 - > |15 - > +s |30 - > +t |31 reply 0 E > | 31 well a > !no upstream server gave a "
         "verdict"},
        {'a', "0 new > a | 105 - > +s+t+r+e+a+m+: | 119 reply 0 K > = OK"},
        {'a', "0 new > a | 15 - > +s | 16 reply 0 L > !no upstream server gave a verdict"},
        {'b',
         "0 new > a | 1 reply 0 E > b | 20 - > +s | 120 - > !no verdict within 120 s | 120 failures b 1 >"},
        {'b', "0 new > a | 1 reply 0 L > b | 14 lost 1 > =L"},
        // Waits from when the last server went down, but for none that accepts and is sick.
        {'b',
         "0 new > a | 0 refused 0 > b | 10 refused 1 > | 69 - > +s+t+r+e | 70 - > !NONE "
         // No scan is given up before every server was asked since it came.
         "| 71 new > | 71 probes ab > | 71 refused a > | 71 refused b > !NONE"
         "| 72 new > | 72 probes ab > | 74 refused a > | 76 - > | 77 - > !NONE | 78 new > | 78 well a > a"},
        {'b',
         "0 new > a | 0 refused 0 > b | 0 reply 1 K > =K | 0 new > b | 0 reply 0 L > | 0 probes a > | 1 well "
         "a > a"},
        // What was said before the server went down says nothing of it now.
        {'b',
         "0 new > a | 0 reply 0 E > b | 0 probes a > | 0 refused 1 > | 1 sick a > | 3 well a > a | 4 reply 2 "
         "K > =K"},
        // An attempt that is new is not silent, and the verdict of a probe counts.
        {'a',
         "0 new > a | 0 lost 0 > | 119 well a > a+s+t+r+e+a+m+: | 120 - > !no verdict within 120 s | 120 "
         "failures "
         "a 1 >"},
        // Dead tunnels.
        {'a',
         "0 new > a | 0 late 0 > | 1 well a > a | 1 late 1 > | 2 well a > a | 2 late 2 > | 3 well a > a | 3 "
         "late 3 > | 4 well a > a | 4 late 4 > !upstream a:1 lost; no further server may get it"},
        {'f',
         "0 new > a |0 late 0 > b |0 late 1 > c |0 late 2 > d |0 late 3 > e |0 late 4 > f | 1 reply 5 K > "
         "=K"},
        {'b',
         "0 new > a |0 lost 0 > b |0 lost 1 > |1 sick a > |1 refused b > |3 sick b > !upstream b:1 lost; no "
         "upstream server calls a clean file clean"
         "| 4 new > | 5 sick a > | 6 well b > b"},
        {'b',
         "0 new > a |0 lost 0 > b |0 lost 1 > |1 probes ab > |1 refused a > |9 silent b > |59 - > +s+t+r "
         "|59.5 "
         "well a > a"},
        // A window that has let go of its beginning.
        {'b',
         "0 part > a | 0 refused 0 > b | 0 window > | 0 lost 1 > !upstream b:1 lost; not all of the data is "
         "kept for another server"},
        {'b', "0 new > a | 0 window > | 11 - >"},
        // A client that has closed its side is tried, for it may have left.
        {'a', "0 new > a | 0.5 closed > | 3.4 - > | 3.5 - > +s | 6.5 - > +t | 21 - > | 21.5 - > +r"},
    };
    for (const auto& [last_server, story] : cases) {
        Story(last_server).Tell(story);
    }
}

TEST(BridgeScan, ErrorsAreHeldAgainstAServerBesideAVerdictOnly) {
    for (const auto& [replies, up] : {std::pair("E > b | 0 reply 1 K > =K", false),
                                      {"E > b | 0 reply 1 E > | 0 well a > | 0 well b > =NE", true},
                                      {"E > b | 1 well a > | 2 reply 1 K > =K", true},
                                      {"L > b | 0 reply 1 K > =K", true}}) {
        Story world;
        for (int i = 0; i < 3; ++i) {
            world['a'].last_turn = 0;
            world.Tell("0 new > a | 0 reply 0 " + std::string(replies));
        }
        EXPECT_EQ(IsUp(world['a']), up) << replies;
    }
    Story silence;
    silence.Tell("0 new > a | 10 - > b | 20 reply 1 K > =K");
    EXPECT_EQ(silence['a'].health.failed_in_row, 1u);
    silence.Tell("20 new > a | 20 reply 0 K > =K");
    EXPECT_EQ(silence['a'].health.failed_in_row + silence['a'].open, 0u);
}

TEST(BridgeScan, OneInTenIsAskedBeside) {
    Story world;
    std::list<ScanPolicy> scans;
    const auto begun = [&](double seconds) {
        size_t count = 0;
        for (ScanPolicy& scan : scans) {
            count += scan.Next(world.At(seconds)).server != nullptr;
        }
        return count;
    };
    for (int i = 0; i < 25; ++i) {
        scans.emplace_back(world.fleet, ScanLimits{60s, 120s}).StreamEnded(world.now);
    }
    EXPECT_EQ(begun(0), 25u);
    EXPECT_EQ(world['a'].open + world['b'].open, 25u);
    EXPECT_EQ(begun(10), 2u);
    world['a'].health.up = false;  // known to be sick: all that are left with it are helped
    EXPECT_EQ(begun(11), 12u);
    scans.clear();
    EXPECT_EQ(world['a'].open + world['b'].open, 0u);
    EXPECT_EQ(world.fleet.scans.Sum(world.At(61)), 0u);
    world['b'].open = 250;  // a ring of bridges grows no further
    world.Tell("62 new >");
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

TEST(BridgeFleet, NamesKeepTheirLastGoodAddresses) {
    Story world('a');
    const auto due = [&](double seconds) {
        unsigned count = 0;
        for (const ServerPtr& server : world.fleet.servers) {
            NoteLookup(world.fleet, *server, world.At(seconds));
            if (LookupIsDue(*server, world.now)) {
                server->lookup.running = ++count != 0;
                server->lookup.at = world.now;
            }
        }
        return count;
    };
    EXPECT_EQ(due(59.9), 0u);
    EXPECT_EQ(due(60), 1u);
    EXPECT_EQ(due(100), 0u);  // under way
    NoteAddresses(world.fleet, world['a'], {}, "no such name", world.now);
    world.Tell("101 new > a | 101 refused 0 >");
    EXPECT_EQ(due(101), 1u);  // it may have moved
    SetServers(world.fleet, {world['a'].name, *ParseServerAddress("b:1")}, world.now);
    EXPECT_FALSE(IsUp(world['a']));  // stays as it was
    EXPECT_EQ(due(101), 1u);
    due(106);
    EXPECT_EQ(world.told, "upstream b:1 down - looking its name up takes long");
    NoteAddresses(world.fleet, world['b'], {*ParseServerAddress("[::1]:1")}, "", world.now);
    world.Tell("106 new > b");
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
