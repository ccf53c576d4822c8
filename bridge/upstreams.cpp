#include "bridge/upstreams.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace kesto {

std::string AddressText(const Upstream& server) {
    return server.host + ":" + std::to_string(server.port);
}

std::vector<Upstream*> TryingOrder(std::vector<Upstream>& servers, Clock::time_point now) {
    std::vector<Upstream*> order;
    order.reserve(servers.size());
    for (Upstream& server : servers) {
        order.push_back(&server);
    }
    const auto paused = [now](const Upstream& server) {
        return server.failures != 0 && (server.being_tried || now < server.retry_at);
    };
    std::stable_sort(order.begin(), order.end(), [&](const Upstream* a, const Upstream* b) {
        return std::tuple(paused(*a), a->last_turn) < std::tuple(paused(*b), b->last_turn);
    });
    return order;
}

void TakeTurn(std::vector<Upstream>& servers, Upstream& server) {
    uint64_t latest = 0;
    for (const Upstream& other : servers) {
        latest = std::max(latest, other.last_turn);
    }
    server.last_turn = latest + 1;
}

std::chrono::seconds NoteFailure(Upstream& server, Clock::time_point now) {
    ++server.failures_in_all;
    if (server.failures != 0 && now < server.retry_at) {
        return std::chrono::seconds(0);
    }
    ++server.failures;
    std::chrono::seconds pause = kFirstPause;
    for (unsigned i = 1; i < server.failures && pause < kLongestPause; ++i) {
        pause *= 2;
    }
    server.retry_at = now + pause;
    return pause;
}

bool NoteReply(Upstream& server) {
    ++server.replies;
    return std::exchange(server.failures, 0) != 0;
}

}  // namespace kesto
