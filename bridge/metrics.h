// Counters since the start, and the text in which they are told: the Prometheus exposition format.
#pragma once

#include <array>
#include <string>

#include "bridge/fleet.h"
#include "bridge/kept_stream.h"
#include "bridge/reply.h"

namespace kesto::bridge {

inline constexpr std::array kSecondsBounds{0.01, 0.05, 0.1,  0.25, 0.5,  1.0,
                                           2.5,  5.0,  10.0, 20.0, 60.0, 120.0};

struct Metrics {
    Time started{};
    unsigned worker_starts = 0;  // by the guard, this one included
    uint64_t clean = 0;
    uint64_t infected = 0;
    uint64_t no_verdict = 0;  // the engine replied something else
    uint64_t no_reply = 0;    // closed without a reply
    uint64_t left = 0;        // the client went before its reply, or its stream broke the rules
    std::array<uint64_t, kSecondsBounds.size() + 1>
        seconds{};  // how many scans took up to each bound, or longer
    double seconds_sum = 0;
    uint64_t bytes = 0;    // file data received
    uint64_t repeats = 0;  // attempts at a scan behind its first one
    uint64_t refused = 0;  // connections ended for what the client sent or did not send
    unsigned clients = 0;  // connected now
    unsigned waiting = 0;  // scans that no server has, now
};

// A scan has ended this long after its command.
void CountSeconds(Metrics& metrics, double seconds);

std::string MetricsText(const Metrics& metrics, const Fleet& fleet, const KeepRoom& room, Time now);

}  // namespace kesto::bridge
