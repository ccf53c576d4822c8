// What the bridge decides, with events and times handed in: no sockets, no clocks.
#include <gmock/gmock.h>

#include <algorithm>
#include <list>
#include <random>
#include <string>

#include "bridge/framing.h"
#include "bridge/kept_stream.h"
#include "bridge/log_limit.h"
#include "bridge/reply.h"
#include "bridge/scan_policy.h"
#include "bridge/settings/bridge_settings.h"

namespace kesto {
namespace {

using namespace std::literals;
using testing::ElementsAre;
using testing::HasSubstr;

const std::string kOk = "stream: OK", kFound = "stream: Evil FOUND", kError = "stream: no memory ERROR";

// Servers a, b, c ... and the scans that are asked for, in seconds of a clock that stands still.
struct World {
    explicit World(size_t servers) {
        std::vector<ServerAddress> names;
        for (size_t i = 0; i < servers; ++i) {
            names.push_back(*ParseServerAddress("10.0.0." + std::to_string(i + 1) + ":1"));
        }
        fleet.tell = [this](const std::string& line) { told.push_back(line); };
        SetServers(fleet, names, now);
    }
    Server& operator[](char name) { return *fleet.servers.at(static_cast<size_t>(name - 'a')); }
    std::string Name(const ServerPtr& server) {
        const auto at = std::find(fleet.servers.begin(), fleet.servers.end(), server);
        return {static_cast<char>('a' + (at - fleet.servers.begin()))};
    }
    std::string Probes(double seconds, bool scans_wait = false) {
        std::string names;
        fleet.scans_wait = scans_wait;
        for (const ServerPtr& server : ProbesDue(fleet, At(seconds))) {
            names += Name(server);
        }
        return names;
    }
    Time At(double seconds) {
        now = start + std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
        return now;
    }
    const Time start{24h};
    Time now = start;
    Fleet fleet;
    std::vector<std::string> told;
};

struct Scan {
    explicit Scan(World& its_world, bool whole = true) : world(its_world) {
        if (whole) {
            policy.StreamEnded(world.now);
        }
    }
    // What is to be done at this moment, all of it: "a" for an attempt there, "+" and the text of a trickle,
    // "=" and a reply, "!" and the reason for none.
    std::string Next(double seconds) {
        std::string steps;
        for (;;) {
            const ScanStep step = policy.Next(world.At(seconds));
            const char* const marks[] = {"", "", "+", "=", "!"};
            if (step.kind == ScanStep::kNothing) {
                return steps;
            }
            steps += step.kind == ScanStep::kAttempt ? world.Name(step.server) : marks[step.kind] + step.text;
        }
    }
    std::string Replied(size_t attempt, const std::string& reply, double seconds) {
        policy.Progressed(attempt, true, world.At(seconds));
        policy.Replied(attempt, reply, world.now);
        return Next(seconds);
    }
    std::string Broken(size_t attempt, bool handed_over, double seconds) {
        policy.Progressed(attempt, handed_over, world.At(seconds));
        policy.Broken(attempt, "lost", world.now);
        return Next(seconds);
    }
    World& world;
    ScanPolicy policy{world.fleet, {60s, 120s}};
};

uint8_t* Bytes(std::string& text) {
    return reinterpret_cast<uint8_t*>(text.data());
}

TEST(BridgeFraming, CommandIsKnownAtItsNulAndNotBefore) {
    std::string scan = "zINSTREAM\0\0\0\0\1"s;
    for (size_t size = 0; size < scan.size(); ++size) {
        const auto found = FindCommand(Bytes(scan), size);
        EXPECT_EQ(found.command, size < 10 ? Command::kIncomplete : Command::kScan) << size;
        EXPECT_EQ(found.size, size < 10 ? 0u : 10u);
    }
    for (std::string wrong : {"x"s, "zI\0"s, "zPINGS"s, "zVERSIOn\0"s}) {
        EXPECT_EQ(FindCommand(Bytes(wrong), wrong.size()).command, Command::kUnknown) << wrong;
    }
}

// However the stream is cut, the same bytes come out and what stands behind its end is left alone.
TEST(BridgeFraming, CutsDoNotMatter) {
    std::string whole, expected;
    std::minstd_rand random(1);
    for (uint32_t size : {1u, 255u, 256u, 70000u, 3u}) {
        const std::string length = {0, static_cast<char>(size >> 16), static_cast<char>(size >> 8),
                                    static_cast<char>(size)};
        whole += length;
        expected += length;
        for (uint32_t i = 0; i < size; ++i) {
            whole += static_cast<char>(random());
            expected += static_cast<char>(whole.back() + 1);
        }
    }
    for (std::string* text : {&whole, &expected}) {
        *text += "\0\0\0\0behind"s;
    }
    for (size_t longest_piece : {1u, 3u, 5000u, 1000000u}) {
        std::string bytes = whole;
        ChunkStream stream;
        size_t at = 0;
        while (!stream.ended) {
            const size_t piece = std::min<size_t>(1 + random() % longest_piece, bytes.size() - at);
            const auto [used, valid] = FollowChunks(stream, Bytes(bytes) + at, piece, true);
            ASSERT_TRUE(valid);
            at += used;
        }
        EXPECT_EQ(at, whole.size() - 6);
        EXPECT_EQ(stream.data_bytes, 1u + 255 + 256 + 70000 + 3);
        EXPECT_TRUE(bytes == expected);
    }
    std::string largest = "\4\0\0\0"s, larger = "\4\0\0\1"s;
    ChunkStream a, b;
    EXPECT_TRUE(FollowChunks(a, Bytes(largest), 4, true).valid);
    EXPECT_EQ(a.data_left, kMaxChunkSize);
    EXPECT_FALSE(FollowChunks(b, Bytes(larger), 4, true).valid);
}

TEST(BridgeReply, OnlyVerdictsKeepTheirBeginning) {
    const struct {
        const char* reply;
        ScanAnswer answer;
        const char* for_client;
    } cases[] = {
        {"stream: OK", ScanAnswer::kClean, "stream: OK"},
        {"stream: A %s name FOUND", ScanAnswer::kInfected, "stream: A %s name FOUND"},
        {"stream:  FOUND", ScanAnswer::kInfected, "stream:  FOUND"},
        {"stream: FOUND", ScanAnswer::kNoVerdict, "no verdict: stream: FOUND"},
        {"stream: OK ", ScanAnswer::kNoVerdict, "no verdict: stream: OK "},
        {"stream: no memory ERROR", ScanAnswer::kNoVerdict, "no verdict: stream: no memory ERROR"},
        {"stream: ", ScanAnswer::kNoVerdict, "no verdict: stream: "},
        {"UNKNOWN COMMAND", ScanAnswer::kNoVerdict, "UNKNOWN COMMAND"},
        {"", ScanAnswer::kNoVerdict, ""},
    };
    for (const auto& [reply, answer, for_client] : cases) {
        EXPECT_EQ(ReadScanAnswer(reply), answer) << reply;
        EXPECT_EQ(ReplyForClient(reply), for_client);
    }
}

// Writes up to `size` bytes and returns how many there was room for.
size_t Fill(KeptStream& stream, size_t size) {
    size_t done = 0;
    for (auto space = stream.Space(); done < size && !space.empty(); space = stream.Space()) {
        const size_t part = std::min(space.size(), size - done);
        for (size_t i = 0; i < part; ++i) {
            space[i] = static_cast<uint8_t>((stream.Size() + i) * 7 >> 3);
        }
        stream.Append(part);
        done += part;
    }
    return done;
}

bool Holds(const KeptStream& stream, uint64_t from) {
    while (from < stream.Size()) {
        const auto piece = stream.Piece(from);
        for (const uint8_t byte : piece) {
            if (byte != static_cast<uint8_t>(from++ * 7 >> 3)) {
                return false;
            }
        }
        if (piece.empty()) {
            return false;
        }
    }
    return true;
}

TEST(BridgeKeptStream, IsKeptWhileThereIsRoomAndElseAWindow) {
    KeepRoom room;
    room.limit = 1'000'000;
    {
        KeptStream small(room), large(room), window(room);
        EXPECT_EQ(Fill(small, 3000), 3000u);
        EXPECT_EQ(room.used, 0u);  // next to nothing
        EXPECT_EQ(Fill(large, 700'000), 700'000u);
        EXPECT_TRUE(Holds(large, 0) && !large.IsWindow());
        large.Release(700'000);
        EXPECT_TRUE(Holds(large, 0));
        const size_t taken = Fill(window, 1'000'000);
        EXPECT_TRUE(window.IsWindow() && Holds(window, 0));
        EXPECT_LE(room.used, room.limit);
        window.Release(taken / 2);
        EXPECT_TRUE(Holds(window, taken / 2));
        window.Release(taken);
        EXPECT_GE(Fill(window, 1'000'000), 64'000u);
        EXPECT_TRUE(Holds(window, taken));
    }
    EXPECT_EQ(room.used, 0u);
    room.limit = 0;
    KeptStream none(room);
    EXPECT_LE(Fill(none, 1'000'000), 132u * 1024);
}

TEST(BridgeLog, TenOfAKindAMinute) {
    LogLimit limit;
    const LogLimit::Time start{};
    for (int i = 0; i < 25; ++i) {
        EXPECT_EQ(limit.Take("a", "line", start + 1s).size(), i < 10 ? 1u : 0u);
    }
    EXPECT_THAT(limit.Take("b", "other", start + 2s), ElementsAre("other"));
    EXPECT_TRUE(limit.Overdue(start + 60s).empty());
    EXPECT_THAT(limit.Take("a", "again", start + 61s),
                ElementsAre("15 more such lines left out, the last: line", "again"));
}

TEST(BridgeFleet, PausesDoubleUntilAVerdict) {
    World world(2);
    NoteBroken(world.fleet, world['a'], "refused", world.At(0));
    NoteBroken(world.fleet, world['a'], "refused", world.At(0.5));  // with the first: no new pause
    double at = 0;
    for (const int pause : {1, 2, 4, 8, 16, 32, 32}) {
        EXPECT_EQ(world.Probes(at + pause - 0.1), "") << pause;
        EXPECT_EQ(world.Probes(at += pause), "a") << pause;
        EXPECT_EQ(world.Probes(at + 1), "");  // under way
        NoteProbe(world.fleet, world['a'], false, "refused", world.At(at));
    }
    EXPECT_THAT(world.told, testing::Contains("upstream 10.0.0.1:1 down - refused; tried again in 16 s"));
    NoteProbe(world.fleet, world['a'], true, "", world.now);
    EXPECT_TRUE(IsUp(world['a']));
    EXPECT_EQ(world.told.back(), "upstream 10.0.0.1:1 up");
    NoteVerdict(world['a']);
    NoteBroken(world.fleet, world['a'], "refused", world.now);
    EXPECT_THAT(world.told.back(), HasSubstr("again in 1 s"));
    EXPECT_EQ(world['a'].failures, 10u);
}

TEST(BridgeFleet, ScansThatWaitAreProbedForMoreOften) {
    World world(1);
    NoteBroken(world.fleet, world['a'], "refused", world.At(0));
    for (const int at : {1, 3, 7}) {
        EXPECT_EQ(world.Probes(at), "a");
        NoteProbe(world.fleet, world['a'], false, "refused", world.now);
    }
    EXPECT_EQ(world.Probes(11), "");
    EXPECT_EQ(world.Probes(11, true), "a");
}

TEST(BridgeFleet, FewestOpenThenLongestUnused) {
    World world(3);
    std::string order;
    std::list<Scan> scans;
    for (int i = 0; i < 6; ++i) {
        order += scans.emplace_back(world).Next(0);
    }
    EXPECT_EQ(order, "abcabc");
    scans.begin()->Replied(0, kOk, 0);
    EXPECT_EQ(scans.emplace_back(world).Next(0), "a");
    std::next(scans.begin(), 2)->Replied(0, kOk, 0);
    std::next(scans.begin(), 1)->Replied(0, kOk, 0);
    EXPECT_EQ(scans.emplace_back(world).Next(0), "b");
    EXPECT_EQ(world['a'].replies, 1u);
    scans.clear();
    EXPECT_EQ(world['a'].open + world['b'].open + world['c'].open, 0u);
    world['a'].open = world['b'].open = world['c'].open = 250;  // a ring of bridges grows no further
    EXPECT_EQ(Scan(world).Next(1), "");
}

TEST(BridgeFleet, NamesKeepTheirLastGoodAddresses) {
    World world(0);
    SetServers(world.fleet, {*ParseServerAddress("mail.example:1")}, world.now);
    Server& server = world['a'];
    const auto due = [&](double seconds) { return LookupsDue(world.fleet, world.At(seconds)).size(); };
    EXPECT_EQ(due(0), 1u);
    EXPECT_EQ(due(4), 0u);  // under way
    EXPECT_TRUE(world.told.empty());
    due(5);
    EXPECT_THAT(world.told, ElementsAre("upstream mail.example:1 down - looking its name up takes long"));
    Scan scan(world);
    EXPECT_EQ(scan.Next(5), "");
    NoteAddresses(world.fleet, server, {*ParseServerAddress("[::1]:1")}, "", world.At(6));
    EXPECT_EQ(world.told.back(), "upstream mail.example:1 up");
    EXPECT_EQ(scan.Next(6), "a");
    EXPECT_EQ(due(65.9), 0u);
    EXPECT_EQ(due(66), 1u);
    NoteAddresses(world.fleet, server, {}, "no such name", world.now);
    EXPECT_TRUE(IsUp(server));
    scan.Broken(0, false, 67);
    EXPECT_EQ(due(67), 1u);  // it may have moved
}

TEST(BridgeFleet, ServersThatStayKeepTheirState) {
    World world(2);
    NoteBroken(world.fleet, world['b'], "refused", world.now);
    const ServerPtr b = world.fleet.servers[1];
    SetServers(world.fleet, {b->name, *ParseServerAddress("10.0.0.9:1")}, world.now);
    EXPECT_EQ(world.fleet.servers.front(), b);
    EXPECT_FALSE(world.fleet.down_since);
    SetServers(world.fleet, {b->name}, world.now);
    EXPECT_EQ(world.fleet.down_since, world.now);
}

TEST(BridgeScan, NoServerBeforeEnoughOfIt) {
    World world(1);
    Scan scan(world, false);
    EXPECT_EQ(scan.Next(0), "");
    scan.policy.EnoughCame();
    EXPECT_EQ(scan.Next(0), "a");
    EXPECT_EQ(scan.Replied(0, kFound, 1), "");  // told when the client is at its end
    EXPECT_TRUE(scan.policy.Decided());
    scan.policy.StreamEnded(world.At(2));
    EXPECT_EQ(scan.Next(2), "=" + kFound);
    EXPECT_EQ(scan.Next(200), "");
}

TEST(BridgeScan, WhatIsNoVerdictGoesToTheNextServer) {
    World world(4);
    Scan scan(world);
    EXPECT_EQ(scan.Next(0), "a");
    EXPECT_EQ(scan.Broken(0, true, 0), "b");
    EXPECT_EQ(scan.Replied(1, kError, 0), "c");
    EXPECT_EQ(scan.Replied(2, kOk, 0), "=" + kOk);
    EXPECT_EQ(scan.policy.Answer(), ScanAnswer::kClean);

    Scan poison(world);  // of four servers three get it, and those that could not be reached do not count
    EXPECT_EQ(poison.Next(0), "d");
    EXPECT_EQ(poison.Broken(0, false, 0), "b");
    EXPECT_EQ(poison.Broken(1, true, 0), "c");
    EXPECT_EQ(poison.Broken(2, true, 0), "");  // waits: nobody is left
    EXPECT_TRUE(poison.policy.Waits());
    NoteProbe(world.fleet, world['a'], true, "", world.now);
    NoteProbe(world.fleet, world['d'], true, "", world.now);
    EXPECT_EQ(poison.Next(1), "a");
    EXPECT_EQ(poison.Broken(3, true, 1), "!upstream 10.0.0.1:1 lost");
}

TEST(BridgeScan, ErrorIsHeldAgainstAServerOnlyBesideAVerdict) {
    const struct {
        const char* error;
        const char* other;
        bool up;
    } cases[] = {{"stream: disk full ERROR", "stream: OK", false},
                 {"stream: disk full ERROR", "stream: bad file ERROR", true},
                 {"INSTREAM size limit exceeded. ERROR", "stream: OK", true}};
    for (const auto& [error, other, up] : cases) {
        World world(2);
        for (int i = 0; i < 3; ++i) {
            world['a'].last_turn = 0;
            Scan scan(world);
            EXPECT_EQ(scan.Next(0), "a");
            EXPECT_EQ(scan.Replied(0, error, 0), "b");
            EXPECT_EQ(scan.Replied(1, other, 0), "=" + ReplyForClient(other));
        }
        EXPECT_EQ(world['a'].up, up) << error << other;
    }
}

TEST(BridgeScan, SecondServerIsAskedBesideASilentOne) {
    World world(3);
    Scan scan(world);
    EXPECT_EQ(scan.Next(0), "a");
    EXPECT_EQ(scan.Next(9.9), "");
    EXPECT_EQ(scan.Next(10), "b");
    EXPECT_EQ(world.Probes(10), "a");  // sick, or only busy?
    EXPECT_EQ(scan.Next(14), "");
    EXPECT_EQ(scan.Replied(1, kOk, 14), "=" + kOk);
    EXPECT_EQ(world['a'].failed_in_row, 1u);
    NoteProbe(world.fleet, world['a'], false, "gave no reply", world.now);
    EXPECT_FALSE(world['a'].up);
}

TEST(BridgeScan, OnlyOneInTenIsAskedBeside) {
    World world(2);
    std::list<Scan> scans;
    std::string beside;
    for (int i = 0; i < 25; ++i) {
        EXPECT_NE(scans.emplace_back(world).Next(0), "");
    }
    for (Scan& scan : scans) {
        beside += scan.Next(10);
    }
    EXPECT_EQ(beside.size(), 2u);
    world['a'].up = false;  // known to be sick: all that wait for it are helped
    beside.clear();
    for (Scan& scan : scans) {
        beside += scan.Next(11);
    }
    EXPECT_EQ(beside, std::string(12, 'b'));
}

TEST(BridgeScan, WaitCountsFromWhenTheLastServerWentDown) {
    World world(2);
    Scan first(world);
    EXPECT_EQ(first.Next(0), "a");
    EXPECT_EQ(first.Broken(0, false, 0), "b");
    EXPECT_EQ(first.Broken(1, false, 10), "");
    Scan second(world);
    EXPECT_EQ(second.Next(60).find('!'), std::string::npos);
    EXPECT_EQ(first.Next(69.9).find('!'), std::string::npos);
    EXPECT_EQ(second.Next(70), "!no upstream server could be reached");
    EXPECT_EQ(Scan(world).Next(71), "!no upstream server could be reached");
    NoteProbe(world.fleet, world['b'], true, "", world.now);
    EXPECT_EQ(Scan(world).Next(72), "b");
}

// Whoever has been told the beginning of a verdict gets a verdict, or an end.
TEST(BridgeScan, TrickleNeverBecomesAnotherReply) {
    for (size_t told = 0; told <= kVerdictBeginning.size(); ++told) {
        for (const std::string& reply : {kOk, kFound, kError, "garbage"s, ""s}) {
            World world(1);
            Scan scan(world);
            scan.policy.StreamEnded(world.start);
            std::string got = scan.Next(0);
            EXPECT_EQ(scan.Next(14.9), "");
            for (size_t i = 1; i <= told; ++i) {
                got += scan.Next(static_cast<double>(15 * i) - (i == 8 ? 0.01 : 0));
            }
            const bool verdict = ReadScanAnswer(reply) != ScanAnswer::kNoVerdict;
            const std::string end = scan.Replied(0, reply, 119.5);
            EXPECT_EQ(end[0], told == 0 || verdict ? '=' : '!') << told << reply;
            if (verdict) {
                EXPECT_EQ(end, "=" + reply.substr(std::min<size_t>(told, 7)));
            }
        }
    }
}

TEST(BridgeScan, VerdictHasItsLimit) {
    World world(2);
    Scan scan(world);
    scan.Next(0);
    EXPECT_EQ(scan.Replied(0, "busy", 1), "b");
    EXPECT_EQ(Scan(world).Next(1), "a");
    world.At(5);
    EXPECT_EQ(scan.policy.Next(world.start + 120s).text, "busy");
    EXPECT_EQ(world['b'].failed_in_row, 1u);
}

TEST(BridgeScan, WindowIsNotRepeated) {
    World world(2);
    Scan scan(world, false);
    scan.policy.EnoughCame();
    EXPECT_EQ(scan.Next(0), "a");
    EXPECT_EQ(scan.Broken(0, false, 0), "b");
    scan.policy.NotRepeatable();
    EXPECT_EQ(scan.Broken(1, false, 0), "");
    scan.policy.StreamEnded(world.At(1));
    EXPECT_EQ(scan.Next(1), "!upstream 10.0.0.2:1 lost");
}

TEST(BridgeScan, ClientThatHasFinishedSendingIsTried) {
    World world(1);
    Scan scan(world);
    scan.Next(0);
    scan.policy.FinishedSending(world.At(0.5));
    EXPECT_EQ(scan.Next(1.4), "");
    EXPECT_EQ(scan.Next(1.5), "+s");
    EXPECT_EQ(scan.Next(2.5), "+t");
    EXPECT_EQ(scan.Next(16), "");
    EXPECT_EQ(scan.Next(17.5), "+r");
}

TEST(BridgeSettings, WhatCannotBeFollowedIsRefused) {
    const struct {
        const char* ini;
        const char* problem;  // empty: none
    } cases[] = {
        {"[bridge]", ""},
        {"\xEF\xBB\xBF; comment\r\n[Bridge] ; x\r\rIDLE = \"20\"\nupstreams=a.b:1 [::1]:2\t10.0.0.1:3", ""},
        {"[bridge]\nlisten=0.0.0.0:1\nkeep=0\nwait=0\nverdict=3600\nclients=20000\n#x\n;y\n", ""},
        {"", "bridge.ini has no [bridge] section"},
        {"[bridge]\n\nlisten=localhost:3313", "line 3: listen=localhost:3313 is not"},
        {"[bridge]\nlisten=127.0.0.1:0", "listen=127.0.0.1:0 is not"},
        {"[bridge]\nupstreams=127.0.0.010:1", "'127.0.0.010:1' is not host:port"},
        {"[bridge]\nupstreams=10.0.0.1/8:1", "is not host:port"},
        {"[bridge]\nupstreams=127.0.0.1", "is not host:port"},
        {"[bridge]\nupstreams=host:65536", "is not host:port"},
        {"[bridge]\nupstreams=0x7f.1:1", "is not host:port"},
        {"[bridge]\nupstreams=10.1:1", "is not host:port"},
        {"[bridge]\nupstreams=::1:1", "is not host:port"},
        {"[bridge]\nupstreams=a_.-b:1", "is not host:port"},
        {"[bridge]\nupstreams=[1::2::3]:1", "is not host:port"},
        {"[bridge]\nupstreams=0.0.0.0:1", "is not the address of a server"},
        {"[bridge]\nupstreams=255.255.255.255:1", "is not the address of a server"},
        {"[bridge]\nupstreams=[::]:1", "is not the address of a server"},
        {"[bridge]\nupstreams=a:1 A:1", "'A:1' stands there twice"},
        {"[bridge]\nupstreams=[::1]:1 [0:0:0:0:0:0:0:1]:1", "stands there twice"},
        {"[bridge]\nupstreams=127.0.0.2:3313", "is the bridge itself"},
        {"[bridge]\nupstreams=10.1.2.3:99\nlisten=127.0.0.1:99", "is the bridge itself"},
        {"[bridge]\nupstreams=", "names no server"},
        {"[bridge]\ndecrypt=yes", "decrypt=yes is neither"},
        {"[bridge]\nidle=0", "idle=0 is not a number of seconds from 1 to 3600"},
        {"[bridge]\nidle=30 ; s", "idle=30 ; s is not"},
        {"[bridge]\nkeep=1025", "keep=1025 is not"},
        {"[bridge]\nlogfile=a ;b", "holds a comment"},
        {"[bridge]\nupsteams=a:1", "unknown setting 'upsteams'"},
        {"[bridge]\nidle=3\nIdle=4", "line 3: 'idle' stands there twice"},
        {"idle=3\n[bridge]", "line 1: 'idle=3' stands above"},
        {"[bridge]\nprose", "'prose' is no setting"},
        {"[bridge]\n[other]", "'[other]' is not the section"},
        {"[bridge]\n[bridge]", "a second section"},
        {"\xEF\xBB\xBF[bridge]", "byte order mark"},
    };
    for (const auto& [ini, problem] : cases) {
        const auto read = ReadBridgeSettings(ini, {*ParseHost("10.1.2.3")});
        EXPECT_EQ(read.problems.size(), *problem ? 1u : 0u) << ini;
        EXPECT_THAT(read.problems.empty() ? "" : read.problems[0], HasSubstr(problem)) << ini;
    }
    EXPECT_THAT(ReadBridgeSettings("[\0b"sv, {}).problems, ElementsAre(HasSubstr("no ANSI text")));
    const BridgeSettings some = ReadBridgeSettings(cases[1].ini, {}).settings;
    EXPECT_EQ(some.idle, 20u);
    EXPECT_EQ(AddressText(some.upstreams[1]), "[::1]:2");
    EXPECT_EQ(some.keep + some.wait + some.verdict + some.clients, 128u + 60 + 120 + 1000);
}

}  // namespace
}  // namespace kesto
