// What a seed stands for: what the world does to the bridge, and when.
#pragma once

#include <vector>

#include "common/bridge_settings.h"
#include "tests/simulation/network.h"

namespace kesto::simulation {

enum class Fault {
    kNone,
    kRefuses,     // it has died
    kUnanswered,  // nothing reaches it
    kFrozen,      // nor does it do anything
    kStopped,     // connections are accepted, but nothing is read
    kDeaf,        // it takes all and replies nothing
    kSick,        // it replies an error
    kHasty,       // it calls everything clean before its end
    kGarbled,     // it replies without an end
    kSlow,
    kBusy,     // it has one thread
    kResets,   // each connection, in any moment
    kForgets,  // somebody between forgets all connections
    kMoved,    // it has another address, or its address is not known yet
};
inline constexpr const char* kFaultNames[] = {"is well",
                                              "dies",
                                              "cannot be reached",
                                              "freezes",
                                              "stands still",
                                              "goes deaf",
                                              "becomes sick",
                                              "becomes hasty",
                                              "becomes garbled",
                                              "becomes slow",
                                              "becomes busy",
                                              "begins to reset",
                                              "loses all connections",
                                              "moves"};

struct FaultPlan {
    Duration from, until;
    Fault fault;
};

struct ServerPlan {
    bool named = false;
    bool v6 = false;
    unsigned dead_address = 0;  // its name has a second address first, which 1: refuses, 2: does not answer
    uint64_t largest = UINT64_MAX;
    Duration scan = 100ms;
    std::vector<FaultPlan> faults;
};

enum class Kind { kClean, kInfected, kLong, kKiller, kErrs, kPing, kVersion, kStats, kNoise, kTooLong };
inline constexpr const char* kKindNames[] = {
    "clean",           "infected",       "takes long",       "kills its server", "an error",
    "asks for a PONG", "asks a version", "asks for numbers", "talks noise",      "sends a chunk too long"};

struct ClientPlan {
    Duration arrives;
    Kind kind = Kind::kClean;
    uint64_t size = 1000;
    uint32_t chunk = 8192;
    double rate = 1e7;
    uint64_t pauses_at = UINT64_MAX;  // after this many bytes
    Duration pause = 0s;
    Duration leaves = 24h;  // after its arrival
    bool resets = false;    // when it leaves
    bool finishes = false;  // closes its side after its request
};

struct ListPlan {
    Duration at;
    unsigned servers;  // a bit for each
};

struct Plan {
    BridgeSettings settings;
    bool system_takes = true;
    std::vector<ServerPlan> servers;
    std::vector<ClientPlan> clients;
    std::vector<ListPlan> lists;
    Duration lasts = 60s;  // then all are well
    Duration stops = 24h;  // the bridge
    struct Lack {
        Duration at;
        uint64_t spare, lacking;
    };
    std::vector<Lack> lacks;  // of memory
    bool lookups_fail = false;
};

Plan PlanOf(uint64_t seed);

}  // namespace kesto::simulation
