#include "bridge/scan.h"

#include <utility>

namespace kesto::bridge {
namespace {

// A scan is given to a server once this much of it, or all of it, has arrived.
constexpr uint64_t kEnough = 64u << 10;

}  // namespace

Scan::Scan(Bridge& bridge, Sleeper& client, const std::string& name, std::shared_ptr<KeptStream> stream,
           Time now)
    : bridge_(bridge),
      client_(client),
      name_(name),
      stream_(std::move(stream)),
      policy_(bridge.fleet,
              {std::chrono::seconds(bridge.settings.wait), std::chrono::seconds(bridge.settings.verdict)}),
      began_(now) {
    ++bridge_.scans;
}

Scan::~Scan() {
    CancelAttempts();
    --bridge_.scans;
    CountScan(bridge_.metrics, outcome_, std::chrono::duration<double>(Clock::now() - began_).count());
}

std::span<uint8_t> Scan::Space(std::shared_ptr<KeptStream>& keeper) {
    if (stream_->Space().empty()) {
        FreeWindow();
    }
    keeper = stream_;
    return stream_->Space();
}

bool Scan::Take(uint8_t* bytes, size_t size, Time now) {
    const uint64_t data_before = chunks_.data_bytes;
    const auto [used, state] = FollowChunks(chunks_, bytes, size, bridge_.settings.decrypt);
    if (state == StreamState::kInvalid) {
        return false;
    }
    bridge_.metrics.bytes += chunks_.data_bytes - data_before;
    if (!policy_.Decided()) {
        stream_->Append(used);
    }
    if (state == StreamState::kEnded) {
        stream_->End();
        policy_.StreamEnded(now);
    } else if (stream_->Size() >= kEnough) {
        policy_.EnoughCame();
    }
    for (const auto& attempt : attempts_) {
        if (attempt) {
            attempt->More();
        }
    }
    return true;
}

Answer Scan::Advance(Time now) {
    HearAttempts(now);
    for (;;) {
        ScanStep step = policy_.Next(now);
        if (policy_.Decided() && stream_->Size() != 0) {
            // Nobody needs it any more, or what is still to come.
            CancelAttempts();
            stream_ = std::make_shared<KeptStream>(bridge_.room);
        }
        if (!step.server) {
            outcome_ = step.outcome;
            return std::move(step.answer);
        }
        Begin(step.server);
    }
}

void Scan::Begin(const ServerPtr& server) {
    if (!attempts_.empty()) {
        ++bridge_.metrics.repeats;
        bridge_.fleet.tell("repeated",
                           "scan of " + name_ + " repeated with upstream " + AddressText(server->name));
    }
    attempts_.push_back(std::make_shared<Attempt>(bridge_, client_, server, stream_));
    attempts_.back()->Start();
}

void Scan::HearAttempts(Time now) {
    for (size_t number = 0; number < attempts_.size(); ++number) {
        const std::shared_ptr<Attempt>& attempt = attempts_[number];
        if (!attempt) {
            continue;
        }
        if (attempt->Sent() != 0) {
            policy_.Progressed(number, attempt->HandedOver(), attempt->Moved());
        }
        const AttemptEnd* const end = attempt->End(now);
        if (!end) {
            continue;
        }
        if (end->Replied() && !end->Verdict()) {
            bridge_.fleet.tell("no verdict", "upstream " + AddressText(attempt->Upstream()->name) +
                                                 " gave no verdict to " + name_ + " - " + end->text);
        }
        policy_.Ended(number, *end, now);
        attempts_[number].reset();
    }
}

// A window that is full releases what its server has received. From then on no other server can take over.
// It has one attempt at a time: a second one begins only when the stream has ended.
void Scan::FreeWindow() {
    for (const auto& attempt : attempts_) {
        if (attempt && attempt->Sent() != 0) {
            policy_.NotRepeatable();
            stream_->Release(attempt->Sent());
        }
    }
}

void Scan::CancelAttempts() {
    for (const auto& attempt : std::exchange(attempts_, {})) {
        if (attempt) {
            attempt->Cancel();
        }
    }
}

}  // namespace kesto::bridge
