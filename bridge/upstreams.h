// The clamd servers behind the bridge: whose turn it is, and which are left in peace after a failure.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace kesto {

using Clock = std::chrono::steady_clock;

// A server that fails is passed over for this long; each further failure doubles the pause up to the
// longest one.
constexpr std::chrono::seconds kFirstPause{1};
constexpr std::chrono::seconds kLongestPause{32};

struct Upstream {
    std::string host;  // IPv4 address or name
    uint16_t port = 0;

    unsigned failures = 0;         // in a row; 0 means up
    Clock::time_point retry_at{};  // end of the pause, when failures is not 0
    bool being_tried = false;      // a connection attempt to a failed server is under way
    uint64_t last_turn = 0;
    uint64_t replies = 0;  // whole replies received
    uint64_t failures_in_all = 0;
};

std::string AddressText(const Upstream& server);  // "host:port"

// The servers in the order in which one connection is to try them: the longest unused first, and behind
// them, as a last resort, those in their pause.
std::vector<Upstream*> TryingOrder(std::vector<Upstream>& servers, Clock::time_point now);

// The caller turns to this server now.
void TakeTurn(std::vector<Upstream>& servers, Upstream& server);

// Counts a failure. Returns the pause that begins with it, or zero when the server was in one already
// (several connections that fail together are one failure).
std::chrono::seconds NoteFailure(Upstream& server, Clock::time_point now);

// Counts a whole reply. Returns true when the server had failed before.
bool NoteReply(Upstream& server);

}  // namespace kesto
