#include "bridge/scan.h"

#include <utility>

namespace kesto::bridge {
namespace {

// A scan is given to a server once this much of it, or all of it, has arrived.
constexpr uint64_t kEnough = 64u << 10;

}  // namespace

Scan::Scan(Shared& shared, Asker& asker, std::shared_ptr<KeptStream> stream, Time now)
    : shared_(shared), asker_(asker), stream_(std::move(stream)), began_(now) {
    policy_.emplace(shared.fleet, ScanLimits{std::chrono::seconds(shared.settings.wait),
                                             std::chrono::seconds(shared.settings.verdict)});
}

std::span<uint8_t> Scan::Space(std::shared_ptr<KeptStream>& keeper) {
    if (stream_->Space().empty()) {
        FreeWindow();
    }
    keeper = stream_;
    return stream_->Space();
}

void Scan::Take(uint8_t* bytes, size_t size, Time now) {
    const uint64_t data_before = chunks_.data_bytes;
    const auto [used, state] = FollowChunks(chunks_, bytes, size, shared_.settings.decrypt);
    if (state == StreamState::kInvalid) {
        asker_.Refuse("a chunk length", "sent a chunk length above " + std::to_string(kMaxChunkSize));
        return;
    }
    shared_.metrics.bytes += chunks_.data_bytes - data_before;
    if (!policy_->Decided()) {
        stream_->Append(used);
    }
    if (state == StreamState::kEnded) {
        stream_->End();
        policy_->StreamEnded(now);
    } else if (stream_->Size() >= kEnough) {
        policy_->EnoughCame();
    }
    ForEachAttempt([](Attempt& attempt) { attempt.More(); });
    Advance(now);
}

void Scan::FinishedSending(Time now) {
    if (policy_) {
        policy_->FinishedSending(now);
    }
}

void Scan::Tick(Time now) {
    ForEachAttempt([now](Attempt& attempt) { attempt.Tick(now); });
    // There may be memory again, or the server may have taken data.
    asker_.SpaceIsFree();
    Advance(now);
}

void Scan::Advance(Time now) {
    while (policy_) {
        const ScanStep step = policy_->Next(now);
        if (policy_->Decided() && stream_->Size() != 0) {
            // Nobody needs it any more, or what is still to come.
            CancelAttempts();
            stream_ = std::make_shared<KeptStream>(shared_.room);
            asker_.SpaceIsFree();
        }
        switch (step.kind) {
            case ScanStep::Kind::kNothing:
                return;
            case ScanStep::Kind::kAttempt:
                Begin(step.attempt, step.server);
                break;
            case ScanStep::Kind::kTrickle:
                asker_.Send(step.text);
                break;
            case ScanStep::Kind::kReply:
                End(step.outcome);
                asker_.Reply(step.text);
                return;
            case ScanStep::Kind::kNoReply:
                End(step.outcome);
                asker_.NoReply(step.text);
                return;
        }
    }
}

void Scan::Begin(size_t number, const ServerPtr& server) {
    if (number != 0) {
        ++shared_.metrics.repeats;
        shared_.fleet.tell(
            "repeated", "scan of " + asker_.Name() + " repeated with upstream " + AddressText(server->name));
    }
    attempts_.resize(number + 1);
    const AttemptPtr attempt = shared_.begin_attempt(
        server, stream_,
        {asker_.Self(),
         [this, number](bool handed_over) {
             policy_->Progressed(number, handed_over, Clock::now());
             FreeWindow();
         },
         [this, number, server](const AttemptEnd& end) { AttemptEnded(number, server, end); }},
        Time::max());
    if (policy_) {
        attempts_[number] = attempt;
    }
}

void Scan::AttemptEnded(size_t number, const ServerPtr& server, const AttemptEnd& end) {
    attempts_[number].reset();
    if (end.Replied() && !end.Verdict()) {
        shared_.fleet.tell("no verdict", "upstream " + AddressText(server->name) + " gave no verdict to " +
                                             asker_.Name() + " - " + end.text);
    }
    const Time now = Clock::now();
    policy_->Ended(number, end, now);
    shared_.news = true;
    Advance(now);
}

// A window releases what its server has received. From then on no other server can take over. It has one
// attempt at a time: a second one begins only when the stream has ended, and then nothing is released any
// more.
void Scan::FreeWindow() {
    if (!stream_->IsWindow() || stream_->Ended()) {
        return;
    }
    ForEachAttempt([this](const Attempt& attempt) {
        if (attempt.Sent() != 0) {
            policy_->NotRepeatable();
            stream_->Release(attempt.Sent());
        }
    });
    if (!stream_->Space().empty()) {
        asker_.SpaceIsFree();
    }
}

// The list may change during the loop.
template <typename Work>
void Scan::ForEachAttempt(Work work) {
    for (size_t i = 0; i < attempts_.size(); ++i) {
        if (const AttemptPtr attempt = attempts_[i]) {
            work(*attempt);
        }
    }
}

void Scan::CancelAttempts() {
    for (const AttemptPtr& attempt : std::exchange(attempts_, {})) {
        if (attempt) {
            attempt->Cancel();
        }
    }
}

void Scan::End(Outcome outcome) {
    policy_.reset();
    CountScan(shared_.metrics, outcome, std::chrono::duration<double>(Clock::now() - began_).count());
}

void Scan::Stop() {
    if (policy_) {
        End(Outcome::kLeft);
    }
    CancelAttempts();
    stream_.reset();
}

}  // namespace kesto::bridge
