#include "bridge/scan_policy.h"

#include <algorithm>
#include <utility>

namespace kesto::bridge {
namespace {

using namespace std::chrono_literals;

// A server that has had the whole stream for this long is late: another one may be asked as well.
constexpr auto kSilence = 10s;

// The client gives up after 20 s without a byte, so it gets the common beginning of all verdicts byte by
// byte.
constexpr auto kTrickle = 15s;

// For the probe that tells whether an error is the server's fault.
constexpr auto kProbePatience = 5s;

// A client that has closed its side may have finished sending, or may have left. If no reply comes soon, what
// happens to these bytes tells.
constexpr auto kTrickleToFinished = 3s;
constexpr size_t kTricklesToFinished = 2;

// A file that ends its engine must not end the fleet. Nor must a file that some device between us and the
// servers blocks. A server that has replied has not ended.
constexpr unsigned kMostWholeAttempts = 3;
constexpr unsigned kMostAttempts = 5;

// Its server is down, or it goes to an address that is no longer used.
bool IsForsaken(const Server& server, Time began) {
    return !server.health.up || began < server.lookup.moved;
}

}  // namespace

ScanPolicy::~ScanPolicy() {
    for (Attempt& attempt : attempts_) {
        Release(attempt, Attempt::State::kLost);
    }
}

void ScanPolicy::EnoughCame() {
    stage_ = std::max(stage_, Stage::kSeeking);
}

void ScanPolicy::StreamEnded(Time now) {
    EnoughCame();
    ended_ = now;
    trickle_at_ = now + kTrickle;
    fleet_.scans.Add(now);
}

void ScanPolicy::FinishedSending(Time now) {
    finished_sending_ = now;
}

bool ScanPolicy::Runs() const {
    return std::any_of(attempts_.begin(), attempts_.end(),
                       [](const Attempt& attempt) { return attempt.state == Attempt::State::kRunning; });
}

void ScanPolicy::Release(Attempt& attempt, Attempt::State state) {
    if (attempt.state == Attempt::State::kRunning) {
        attempt.state = state;
        --attempt.server->open;
    }
}

void ScanPolicy::Decide(Outcome outcome, std::string text) {
    stage_ = Stage::kDecided;
    end_.kind = outcome.kind == Outcome::Kind::kNoReply ? ScanStep::Kind::kNoReply : ScanStep::Kind::kReply;
    end_.text = std::move(text);
    end_.outcome = outcome;
}

std::string ScanPolicy::WordsOf(Loss loss) const {
    switch (loss) {
        case Loss::kNone:
            break;
        case Loss::kOverTime:
            return "no verdict within " + std::to_string(limits_.verdict.count()) + " s";
        case Loss::kNotRepeatable:
            return last_failure_ + "; not all of the data is kept for another server";
        case Loss::kUsedUp:
            return last_failure_ + "; no further server may get it";
        case Loss::kNoVerdict:
            return "no upstream server gave a verdict";
        case Loss::kSick:
            return last_failure_ + "; no upstream server calls a clean file clean";
        case Loss::kUnreached:
            return "no upstream server could be reached";
    }
    return "";
}

// The client gets the last reply without a verdict, if there is one and it has seen nothing else.
void ScanPolicy::GiveUp(Loss loss, Time now) {
    for (Attempt& attempt : attempts_) {
        if (attempt.state == Attempt::State::kRunning) {
            NoteSilence(fleet_, *attempt.server, attempt.progressed, now);
            Release(attempt, Attempt::State::kLost);
        }
    }
    if (last_reply_ && trickled_ == 0) {
        Decide({Outcome::Kind::kNoVerdict, loss}, ReplyForClient(*last_reply_));
    } else {
        Decide({Outcome::Kind::kNoReply, loss}, WordsOf(loss));
    }
}

void ScanPolicy::Progressed(size_t attempt, bool handed_over, Time now) {
    attempts_[attempt].progressed = now;
    attempts_[attempt].sent = true;
    attempts_[attempt].handed_over = handed_over;
}

void ScanPolicy::TakeVerdict(Attempt& attempt, const AttemptEnd& end, Time now) {
    const bool clean = end.kind == AttemptEnd::Kind::kClean;
    Decide({clean ? Outcome::Kind::kClean : Outcome::Kind::kInfected}, end.text);
    NoteVerdict(*attempt.server, now);
    Release(attempt, Attempt::State::kLost);
    for (Attempt& other : attempts_) {
        if (other.state == Attempt::State::kErred) {
            NoteError(fleet_, *other.server, now);
        } else if (other.state == Attempt::State::kRunning && IsSilent(other, now)) {
            NoteSilence(fleet_, *other.server, other.progressed, now);
        }
        Release(other, Attempt::State::kLost);
    }
}

void ScanPolicy::Ended(size_t number, const AttemptEnd& end, Time now) {
    Attempt& attempt = attempts_[number];
    Server& server = *attempt.server;
    if (attempt.state != Attempt::State::kRunning) {
        return;
    }
    if (end.Replied()) {
        ++server.numbers.replies;
        server.numbers.seconds += std::chrono::duration<double>(now - attempt.began).count();
        last_reply_ = end;
    } else {
        last_failure_ = "upstream " + AddressText(server.name) + " " + end.text;
    }
    switch (end.kind) {
        case AttemptEnd::Kind::kClean:
        case AttemptEnd::Kind::kInfected:
            TakeVerdict(attempt, end, now);
            break;
        case AttemptEnd::Kind::kTooLarge:
            Release(attempt, Attempt::State::kTooLarge);
            break;
        case AttemptEnd::Kind::kNoVerdict:
            Release(attempt, Attempt::State::kErred);
            SuspectForError(server, now);
            break;
        case AttemptEnd::Kind::kUnreached:
            Release(attempt, Attempt::State::kLost);
            NoteBroken(fleet_, server, end.text, now, now);
            break;
        case AttemptEnd::Kind::kBroken:
            Release(attempt, Attempt::State::kLost);
            NoteBroken(fleet_, server, end.text, attempt.progressed, now);
            break;
        case AttemptEnd::Kind::kSilent:
            Release(attempt, Attempt::State::kLost);
            NoteSilence(fleet_, server, attempt.progressed, now);
            SuspectForSilence(fleet_, server, now);
            break;
    }
}

bool ScanPolicy::TakesLong(const Attempt& attempt, Time now) const {
    return ended_ && now >= std::max(*ended_, attempt.began) + kSilence;
}

// And it takes no data either, which over a slow line could be the reason, and the server works for nobody.
bool ScanPolicy::IsSilent(const Attempt& attempt, Time now) const {
    return TakesLong(attempt, now) &&
           now >= std::max(attempt.progressed, attempt.server->health.worked) + kSilence;
}

// It has the scan, or has replied to it and would reply the same again.
bool ScanPolicy::HasAsked(const Server& server) const {
    return std::any_of(attempts_.begin(), attempts_.end(), [&server](const Attempt& attempt) {
        return attempt.server.get() == &server && attempt.state != Attempt::State::kLost &&
               !IsForsaken(server, attempt.began);
    });
}

// First a server that this scan has not tried, then one whose connection broke.
ServerPtr ScanPolicy::NextServer() const {
    return Choose(fleet_, [this](const Server& server) -> std::optional<unsigned> {
        const auto tries = std::count_if(attempts_.begin(), attempts_.end(), [&](const Attempt& attempt) {
            return attempt.server.get() == &server;
        });
        return HasAsked(server) ? std::nullopt : std::optional(static_cast<unsigned>(tries));
    });
}

// A server that is up and may still be asked, although it is busy.
bool ScanPolicy::ServerIsLeft() const {
    return std::any_of(fleet_.servers.begin(), fleet_.servers.end(),
                       [this](const ServerPtr& server) { return IsUp(*server) && !HasAsked(*server); });
}

// Whether an error was the server's fault: then there is hope for the scan.
bool ScanPolicy::ProbeWillTell() const {
    return std::any_of(attempts_.begin(), attempts_.end(), [](const Attempt& attempt) {
        return attempt.state == Attempt::State::kErred &&
               attempt.server->health.probe != Server::Health::Probe::kNone;
    });
}

// As many servers have, or had, the scan as may have it.
bool ScanPolicy::IsUsedUp() const {
    unsigned whole = 0, sent = 0;
    for (const Attempt& attempt : attempts_) {
        const bool runs = attempt.state == Attempt::State::kRunning;
        const bool lost = attempt.state == Attempt::State::kLost;
        whole += runs || (lost && attempt.handed_over);
        sent += runs || (lost && attempt.sent);
    }
    return whole >= kMostWholeAttempts || sent >= kMostAttempts;
}

// True when no attempt runs, or when all that run are late and either they are forsaken or few scans had a
// second server lately.
bool ScanPolicy::MayBegin(Time now) const {
    bool all_late = true, all_forsaken = true;
    for (const Attempt& attempt : attempts_) {
        const bool runs = attempt.state == Attempt::State::kRunning;
        all_late &= !runs || TakesLong(attempt, now);
        all_forsaken &= !runs || IsForsaken(*attempt.server, attempt.began);
    }
    if (IsUsedUp() || (!attempts_.empty() && !repeatable_)) {
        return false;
    }
    return !Runs() || (all_late && (all_forsaken || asked_beside_ || MayAskBeside(fleet_, now)));
}

void ScanPolicy::SuspectSilentOnes(Time now) {
    for (const Attempt& attempt : attempts_) {
        if (attempt.state == Attempt::State::kRunning && IsSilent(attempt, now)) {
            SuspectForSilence(fleet_, *attempt.server, now);
        }
    }
}

// Why it is useless to wait for a verdict, or for a server that may give one. kNone: there is hope.
Loss ScanPolicy::WhyUseless(Time now) const {
    if (ended_ && now >= *ended_ + limits_.verdict) {
        return Loss::kOverTime;
    }
    if (Runs()) {
        return Loss::kNone;
    }
    if (!attempts_.empty() && !repeatable_) {
        return Loss::kNotRepeatable;
    }
    if (IsUsedUp()) {
        return Loss::kUsedUp;
    }
    if (ServerIsLeft() || (ProbeWillTell() && now < *waits_since_ + kProbePatience)) {
        return Loss::kNone;
    }
    if (last_reply_ && !fleet_.down_since) {
        return Loss::kNoVerdict;
    }
    if (AllSick(fleet_, *waits_since_)) {
        return Loss::kSick;
    }
    return now >= fleet_.down_since.value_or(now) + limits_.wait ? Loss::kUnreached : Loss::kNone;
}

ScanStep ScanPolicy::Begin(const ServerPtr& server, Time now) {
    const bool beside = std::any_of(attempts_.begin(), attempts_.end(), [](const Attempt& attempt) {
        return attempt.state == Attempt::State::kRunning && !IsForsaken(*attempt.server, attempt.began);
    });
    attempts_.push_back({server, now, now});
    ++server->open;
    TakeTurn(fleet_, *server);
    if (beside && !std::exchange(asked_beside_, true)) {
        fleet_.beside.Add(now);
    }
    waits_since_.reset();
    return {ScanStep::Kind::kAttempt, attempts_.size() - 1, server, {}, {}};
}

ScanStep ScanPolicy::Trickle(Time now) {
    const bool finished = finished_sending_ && trickled_ < kTricklesToFinished &&
                          now >= *finished_sending_ + kTrickleToFinished * (trickled_ + 1);
    if (trickled_ == kVerdictBeginning.size() || !(finished || now >= trickle_at_)) {
        return {};
    }
    trickle_at_ = (finished ? now : trickle_at_) + kTrickle;
    ScanStep step;
    step.kind = ScanStep::Kind::kTrickle;
    step.text = kVerdictBeginning.substr(trickled_++, 1);
    return step;
}

ScanStep ScanPolicy::Next(Time now) {
    if (stage_ == Stage::kSeeking) {
        SuspectSilentOnes(now);
        if (!Runs()) {
            waits_since_ = waits_since_.value_or(now);
        }
        const Loss loss = WhyUseless(now);
        if (loss != Loss::kNone) {
            GiveUp(loss, now);
        } else if (const ServerPtr server = MayBegin(now) ? NextServer() : nullptr) {
            return Begin(server, now);
        }
    }
    if (stage_ == Stage::kDecided && (ended_ || end_.kind == ScanStep::Kind::kNoReply)) {
        stage_ = Stage::kTold;
        if (end_.kind == ScanStep::Kind::kReply) {
            end_.text.erase(0, trickled_);
        }
        return std::exchange(end_, {});
    }
    return stage_ == Stage::kSeeking && ended_ ? Trickle(now) : ScanStep{};
}

}  // namespace kesto::bridge
