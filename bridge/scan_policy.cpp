#include "bridge/scan_policy.h"

#include <algorithm>
#include <utility>

namespace kesto::bridge {
namespace {

using namespace std::chrono_literals;

// A server that has had the whole stream for this long is silent: another may be asked beside it.
constexpr auto kSilence = 10s;

// The client gives up after 20 s without a byte, so it gets the verdicts' common beginning one by one.
constexpr auto kTrickle = 15s;

// A client that has closed its side may only have finished sending, or have left: the answer to these bytes
// tells, where no reply comes soon.
constexpr auto kTrickleToFinished = 3s;
constexpr size_t kTricklesToFinished = 2;

// A file that ends its engine must not end the fleet.
constexpr unsigned kMostWholeAttempts = 3;

}  // namespace

ScanPolicy::~ScanPolicy() {
    for (const Attempt& attempt : attempts_) {
        attempt.server->open -= attempt.running;
    }
}

void ScanPolicy::EnoughCame() {
    enough_ = true;
}

void ScanPolicy::StreamEnded(Time now) {
    enough_ = true;
    ended_ = now;
    trickle_at_ = now + kTrickle;
    fleet_.scans.Add(now);
}

void ScanPolicy::FinishedSending(Time now) {
    finished_sending_ = now;
}

void ScanPolicy::End(Attempt& attempt, Time now) {
    if (std::exchange(attempt.running, false)) {
        --attempt.server->open;
        if (attempt.replied) {
            ++attempt.server->replies;
            attempt.server->seconds += std::chrono::duration<double>(now - attempt.began).count();
        }
    }
}

void ScanPolicy::Decide(ScanStep::Kind kind, std::string text) {
    decided_ = true;
    waits_ = false;
    end_.kind = kind;
    end_.text = std::move(text);
}

void ScanPolicy::DecideWithoutVerdict(const std::string& reason) {
    if (last_reply_ && trickled_ == 0) {
        answer_ = ScanAnswer::kNoVerdict;
        Decide(ScanStep::kReply, ReplyForClient(*last_reply_));
    } else {
        Decide(ScanStep::kNoReply, reason.empty() ? "no upstream server gave a verdict" : reason);
    }
}

void ScanPolicy::Progressed(size_t attempt, bool handed_over, Time now) {
    attempts_[attempt].progressed = now;
    attempts_[attempt].handed_over = handed_over;
}

void ScanPolicy::Replied(size_t number, const std::string& reply, Time now) {
    Attempt& attempt = attempts_[number];
    attempt.replied = true;
    End(attempt, now);
    if (decided_) {
        return;
    }
    const ScanAnswer answer = ReadScanAnswer(reply);
    if (answer == ScanAnswer::kNoVerdict) {
        attempt.erred = reply != kSizeLimitReply;
        last_reply_ = reply;
        return;
    }
    answer_ = answer;
    Decide(ScanStep::kReply, reply);
    NoteVerdict(*attempt.server);
    for (Attempt& other : attempts_) {
        if (other.erred || (other.running && IsSilent(other, now))) {
            NoteFailedScan(fleet_, *other.server, now);
        }
        End(other, now);
    }
}

void ScanPolicy::Broken(size_t attempt, const std::string& reason, Time now) {
    End(attempts_[attempt], now);
    last_failure_ = "upstream " + AddressText(attempts_[attempt].server->name) + " " + reason;
    NoteBroken(fleet_, *attempts_[attempt].server, reason, now);
}

void ScanPolicy::Silent(size_t attempt, const std::string& reason, Time now) {
    End(attempts_[attempt], now);
    last_failure_ = "upstream " + AddressText(attempts_[attempt].server->name) + " " + reason;
    NoteFailedScan(fleet_, *attempts_[attempt].server, now);
}

bool ScanPolicy::TakesLong(const Attempt& attempt, Time now) const {
    return ended_ && now >= std::max(*ended_, attempt.began) + kSilence;
}

// And takes no data either, which over a slow line could be the reason.
bool ScanPolicy::IsSilent(const Attempt& attempt, Time now) const {
    return TakesLong(attempt, now) && now >= attempt.progressed + kSilence;
}

// First one that this scan has not tried, then one that broke off. One that has replied to the file would
// say the same again.
ServerPtr ScanPolicy::NextServer() const {
    return Choose(fleet_, [this](const Server& server) -> std::optional<unsigned> {
        unsigned tries = 0;
        for (const Attempt& attempt : attempts_) {
            if (attempt.server.get() == &server) {
                if (attempt.running || attempt.replied) {
                    return std::nullopt;
                }
                ++tries;
            }
        }
        return tries;
    });
}

// One that is up and has not yet replied to this scan, though it may have its hands full.
bool ScanPolicy::ServerIsLeft() const {
    return std::any_of(fleet_.servers.begin(), fleet_.servers.end(), [this](const ServerPtr& server) {
        return IsUp(*server) && std::none_of(attempts_.begin(), attempts_.end(), [&](const Attempt& attempt) {
                   return attempt.server == server && attempt.replied;
               });
    });
}

// With nobody at it, or with only such as take long: then beside them, if those are known to be sick or few
// scans have got that lately.
bool ScanPolicy::MayBegin(Time now) {
    unsigned whole = 0, running = 0;
    bool all_late = true, all_down = true;
    for (const Attempt& attempt : attempts_) {
        whole += attempt.running || attempt.handed_over;
        if (attempt.running) {
            ++running;
            all_late &= TakesLong(attempt, now);
            all_down &= !attempt.server->up;
            if (IsSilent(attempt, now)) {
                Suspect(fleet_, *attempt.server, now);
            }
        }
    }
    if (!enough_ || whole >= kMostWholeAttempts) {
        return false;
    }
    if (running == 0) {
        return true;
    }
    return all_late && repeatable_ && (all_down || asked_beside_ || MayAskBeside(fleet_, now));
}

ScanStep ScanPolicy::Begin(const ServerPtr& server, Time now) {
    const bool beside = std::any_of(attempts_.begin(), attempts_.end(), [](const Attempt& attempt) {
        return attempt.running && attempt.server->up;
    });
    if (beside && !std::exchange(asked_beside_, true)) {
        fleet_.beside.Add(now);
    }
    waits_ = false;
    waits_since_.reset();
    TakeTurn(fleet_, *server);
    ++server->open;
    attempts_.push_back({server, now, now});
    return {ScanStep::kAttempt, attempts_.size() - 1, server, {}};
}

ScanStep ScanPolicy::Trickle(Time now) {
    const bool finished = finished_sending_ && trickled_ < kTricklesToFinished &&
                          now >= *finished_sending_ + kTrickleToFinished * (trickled_ + 1);
    if (trickled_ == kVerdictBeginning.size() || !(finished || now >= trickle_at_)) {
        return {};
    }
    trickle_at_ = (finished ? now : trickle_at_) + kTrickle;
    ScanStep step;
    step.kind = ScanStep::kTrickle;
    step.text = kVerdictBeginning.substr(trickled_++, 1);
    return step;
}

ScanStep ScanPolicy::Next(Time now) {
    const bool nobody = std::none_of(attempts_.begin(), attempts_.end(),
                                     [](const Attempt& attempt) { return attempt.running; });
    if (!decided_ && enough_) {
        waits_ = false;
        if (ended_ && now >= *ended_ + limits_.verdict) {
            for (Attempt& attempt : attempts_) {
                if (attempt.running) {
                    NoteFailedScan(fleet_, *attempt.server, now);
                    End(attempt, now);
                }
            }
            DecideWithoutVerdict("no verdict within " + std::to_string(limits_.verdict.count()) + " s");
        } else if (nobody && !attempts_.empty() && !repeatable_) {
            DecideWithoutVerdict(last_failure_);
        } else if (!MayBegin(now)) {
            if (nobody) {
                DecideWithoutVerdict(last_failure_);
            }
        } else if (const ServerPtr server = NextServer()) {
            return Begin(server, now);
        } else if (nobody && !ServerIsLeft()) {
            waits_since_ = waits_since_.value_or(now);
            const bool last_word = last_reply_ && !fleet_.down_since;
            const bool sick = AllSick(fleet_, *waits_since_);
            waits_ = !last_word && !sick && now < fleet_.down_since.value_or(now) + limits_.wait;
            if (!waits_) {
                DecideWithoutVerdict(last_word ? ""
                                     : sick    ? last_failure_
                                               : "no upstream server could be reached");
            }
        } else {
            waits_ = nobody;
        }
    }
    if (told_) {
        return {};
    }
    if (decided_ && (ended_ || end_.kind == ScanStep::kNoReply)) {
        told_ = true;
        if (end_.kind == ScanStep::kReply) {
            end_.text.erase(0, trickled_);
        }
        return std::exchange(end_, {});
    }
    return ended_ && !decided_ ? Trickle(now) : ScanStep{};
}

}  // namespace kesto::bridge
