// What the bridge decides, with events and times handed in: no sockets, no clocks.
#include <gmock/gmock.h>

#include "bridge/fleet.h"
#include "common/bridge_settings.h"

namespace {

using namespace kesto;
using namespace kesto::bridge;
using namespace std::literals;
using namespace testing;

const Time kStart{24h};

struct TwoServers : Fleet {
    TwoServers() {
        SetServers(*this, {*ParseServerAddress("10.0.0.1:1"), *ParseServerAddress("10.0.0.1:2")}, kStart);
    }
};

TEST(BridgeFleet, AServerIsDownAfterThreeFailuresInARowAndSuspectedAloneForSilence) {
    TwoServers fleet;
    Server& server = *fleet.servers.front();
    const auto fails = [&] { return NoteFailure(fleet, server, kStart, kStart), !IsUp(server); };
    EXPECT_FALSE(fails() || fails());
    NoteVerdict(server, kStart);
    EXPECT_FALSE(fails() || fails());
    SuspectForSilence(fleet, server, kStart);
    SuspectForSilence(fleet, *fleet.servers.back(), kStart);
    EXPECT_TRUE(ProbeIsDue(fleet, server, kStart));
    EXPECT_FALSE(ProbeIsDue(fleet, *fleet.servers.back(), kStart));
    EXPECT_TRUE(fails());
    NoteProbe(fleet, server, EndOfReply("stream: OK"), kStart);
    EXPECT_FALSE(fails() || fails());
}

TEST(BridgeFleet, OneScanInTenOfTheLastMinuteMayHaveABusySecondServer) {
    Fleet fleet;
    for (int i = 0; i < 20; ++i) {
        fleet.scans.Add(kStart);
    }
    for (const bool may : {true, true, false}) {
        EXPECT_EQ(MayAskBeside(fleet, kStart + 59s), may);
        fleet.beside.Add(kStart + 1s);
    }
    EXPECT_FALSE(MayAskBeside(fleet, kStart + 60s));
    EXPECT_TRUE(MayAskBeside(fleet, kStart + 61s));
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
        {"names no server", {"upstreams=", "upstreams=\"\""}},
        {"is not an IPv4 address and port", {"listen=localhost:3313", "listen=127.0.0.1:0", "listen="}},
        {"is neither 0 nor 1", {"decrypt=yes"}},
        {"is not a number", {"idle=0", "idle=3601", "idle=30 ; s", "keep=1025", "wait="}},
        {"holds a comment", {"logfile=a ;b"}},
        {"unknown setting 'upsteams'", {"upsteams=a:1"}},
        {"is neither the section", {"[other]"}},
        {"is not a setting", {"just words"}},
        {"bridge.ini upstreams: '127.0.0.1:3310' is the bridge itself", {"listen=127.0.0.1:3310"}},
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
