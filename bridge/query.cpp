#include "bridge/query.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace kesto::bridge {
namespace {

constexpr std::chrono::seconds kLimit(5);  // for the reply of one server, and for looking up all names

}  // namespace

// No data of the client can be lost, so every server may be asked in turn, those that are down last.
Query::Query(Bridge& bridge, Sleeper& client, std::shared_ptr<KeptStream> stream, Time now)
    : bridge_(bridge),
      client_(client),
      stream_(std::move(stream)),
      to_ask_(bridge.fleet.servers),
      look_up_until_(now + kLimit) {
    std::sort(to_ask_.begin(), to_ask_.end(), [](const ServerPtr& a, const ServerPtr& b) {
        return std::tuple(a->health.up, b->open, b->last_turn) <
               std::tuple(b->health.up, a->open, a->last_turn);
    });
}

Query::~Query() {
    if (attempt_) {
        attempt_->Cancel();
    }
}

Answer Query::Advance(Time now) {
    if (attempt_) {
        const AttemptEnd* const end = attempt_->End(now);
        if (!end) {
            return {};
        }
        Server& server = *attempt_->Upstream();
        if (end->Replied()) {
            ProbeSoon(server);
            return {Answer::Kind::kReply, end->text};
        }
        if (end->kind == AttemptEnd::Kind::kSilent) {
            SuspectForSilence(bridge_.fleet, server, now);
        } else {
            NoteBroken(bridge_.fleet, server, *end, attempt_->Moved(), now);
        }
        attempt_.reset();
    }
    const auto next = std::find_if(to_ask_.rbegin(), to_ask_.rend(),
                                   [](const ServerPtr& server) { return !server->lookup.addresses.empty(); });
    if (next != to_ask_.rend()) {
        attempt_ = std::make_shared<Attempt>(bridge_, client_, *next, stream_, now + kLimit);
        to_ask_.erase(std::next(next).base());
        attempt_->Start();
    } else if (to_ask_.empty() || now >= look_up_until_) {
        return {Answer::Kind::kNoReply, "no upstream server answered"};
    }
    return {};
}

}  // namespace kesto::bridge
