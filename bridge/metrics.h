// Counters since the start, and their text in the Prometheus exposition format. Nothing is decided by them.
#pragma once

#include <array>
#include <string>

#include "bridge/fleet.h"
#include "bridge/outcome.h"

namespace kesto::bridge {

inline constexpr std::array kSecondsBounds{0.01, 0.05, 0.1,  0.25, 0.5,  1.0,
                                           2.5,  5.0,  10.0, 20.0, 60.0, 120.0};

struct Metrics {
    Time started{};
    unsigned worker_starts = 0;               // by the guard, this one included
    std::array<uint64_t, kOutcomes> scans{};  // that have ended, by their outcome
    std::array<uint64_t, kLosses> losses{};   // those of them without a verdict, by the reason
    // How many scans took up to each limit, or longer.
    std::array<uint64_t, kSecondsBounds.size() + 1> seconds{};
    double seconds_sum = 0;
    uint64_t bytes = 0;    // file data received
    uint64_t repeats = 0;  // attempts at a scan after its first one
    uint64_t refused = 0;  // connections ended because of what the client sent or did not send
};

// A scan has ended this long after its command.
void CountScan(Metrics& metrics, const Outcome& outcome, double seconds);

// The present state.
struct Gauges {
    size_t clients;
    size_t clients_limit;
    size_t scans_waiting;
    size_t kept_bytes;
    size_t keep_bytes;
};

std::string MetricsText(const Metrics& metrics, const Gauges& gauges, const Fleet& fleet, Time now);

}  // namespace kesto::bridge
