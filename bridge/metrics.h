// Counters since the start, and the text in which they are told.
#pragma once

#include <string>
#include <vector>

#include "bridge/upstreams.h"

namespace kesto {

struct Metrics {
    Clock::time_point started = Clock::now();
    unsigned connections = 0;  // open now
    uint64_t scans = 0;        // scans begun; each ends as one of the next four
    uint64_t clean = 0;
    uint64_t infected = 0;
    uint64_t no_verdict = 0;  // the engine replied something else
    uint64_t no_reply = 0;    // closed without a reply, by whosever fault
    uint64_t bytes = 0;       // file data passed on
    uint64_t refused = 0;     // connections ended for what the client sent or did not send
};

// One "name value" a line, then one line an upstream.
std::string MetricsText(const Metrics& metrics, const std::vector<Upstream>& upstreams);

}  // namespace kesto
