#include "bridge/query.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace kesto::bridge {
namespace {

constexpr std::chrono::seconds kLimit(5);  // for the reply of one server, and for looking up all names

}  // namespace

// No data of the client can be lost, so every server may be asked in turn, those that are down last.
Query::Query(Shared& shared, Asker& asker, std::shared_ptr<KeptStream> request, Time now)
    : shared_(shared),
      asker_(asker),
      request_(std::move(request)),
      to_ask_(shared.fleet.servers),
      look_up_until_(now + kLimit) {
    std::sort(to_ask_.begin(), to_ask_.end(), [](const ServerPtr& a, const ServerPtr& b) {
        return std::tuple(a->health.up, b->open, b->last_turn) <
               std::tuple(b->health.up, a->open, a->last_turn);
    });
}

void Query::Advance(Time now) {
    if (!request_) {
        return;
    }
    const auto next = std::find_if(to_ask_.rbegin(), to_ask_.rend(),
                                   [](const ServerPtr& server) { return !server->lookup.addresses.empty(); });
    if (next == to_ask_.rend()) {
        if (to_ask_.empty() || now >= look_up_until_) {
            asker_.NoReply("no upstream server answered");
        }
        return;
    }
    const ServerPtr server = *next;
    to_ask_.erase(std::next(next).base());
    const AttemptPtr attempt = shared_.begin_attempt(
        server, request_,
        {asker_.Self(), [](bool) {}, [this, server](const AttemptEnd& end) { Ended(server, end); }},
        now + kLimit);
    if (request_) {
        attempt_ = attempt;
    }
}

void Query::Ended(const ServerPtr& server, const AttemptEnd& end) {
    attempt_.reset();
    const Time now = Clock::now();
    if (end.Replied()) {
        NoteAlive(*server);
        asker_.Reply(end.text);
        return;
    }
    if (end.kind == AttemptEnd::Kind::kSilent) {
        SuspectForSilence(shared_.fleet, *server, now);
    } else {
        NoteBroken(shared_.fleet, *server, end.text, now, now);
    }
    Advance(now);
}

void Query::Tick(Time now) {
    if (const AttemptPtr attempt = attempt_) {
        attempt->Tick(now);
    } else {
        Advance(now);
    }
}

void Query::Stop() {
    request_.reset();
    if (const AttemptPtr attempt = std::exchange(attempt_, nullptr)) {
        attempt->Cancel();
    }
}

}  // namespace kesto::bridge
