#include "bridge/scan_policy.h"

#include <algorithm>
#include <array>
#include <utility>

#include "base/clamd_words.h"

namespace kesto::bridge {
namespace {

using namespace std::chrono_literals;

// A server that has had the whole stream for this long is late: another one may be asked as well.
constexpr auto kSilence = 10s;

// The client gives up when it has waited too long for a byte, so it gets the common beginning of all verdicts
// byte by byte.
constexpr auto kTrickle = std::chrono::milliseconds(kIdleLimitMs) - 5s;

// For the probes that a scan waits for before it is given up.
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
    for (Try& attempt : tries_) {
        Release(attempt, Try::State::kLost);
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

bool ScanPolicy::Runs() const {
    return std::any_of(tries_.begin(), tries_.end(),
                       [](const Try& attempt) { return attempt.state == Try::State::kRunning; });
}

void ScanPolicy::Release(Try& attempt, Try::State state) {
    if (attempt.state == Try::State::kRunning) {
        attempt.state = state;
        --attempt.server->open;
    }
}

void ScanPolicy::Decide(Outcome outcome, std::string text) {
    const bool replies = outcome.kind != Outcome::Kind::kNoReply;
    stage_ = Stage::kDecided;
    end_ = {nullptr, {replies ? Answer::Kind::kReply : Answer::Kind::kNoReply, std::move(text)}, outcome};
}

std::string ScanPolicy::WordsOf(Loss loss) const {
    constexpr std::array<const char*, kLosses> kWords{"",
                                                      "no verdict within ",
                                                      "not all of the data is kept for another server",
                                                      "no further server may get it",
                                                      "no upstream server gave a verdict",
                                                      "no upstream server calls a clean file clean",
                                                      "no upstream server could be reached"};
    const std::string seconds = loss == Loss::kOverTime ? std::to_string(limits_.verdict.count()) + " s" : "";
    return last_failure_ + (last_failure_.empty() ? "" : "; ") + kWords[static_cast<size_t>(loss)] + seconds;
}

// The client gets the last reply without a verdict, if there is one and it has seen nothing else.
void ScanPolicy::GiveUp(Loss loss, Time now) {
    for (const Try& attempt : tries_) {
        if (IsSilent(attempt, now)) {
            NoteFailure(fleet_, *attempt.server, attempt.progressed, now);
        }
    }
    if (last_reply_ && trickled_ == 0) {
        Decide({Outcome::Kind::kNoVerdict, loss}, ReplyForClient(*last_reply_));
    } else {
        Decide({Outcome::Kind::kNoReply, loss}, WordsOf(loss));
    }
}

void ScanPolicy::Progressed(size_t attempt, bool handed_over, Time now) {
    tries_[attempt].progressed = now;
    tries_[attempt].sent = true;
    tries_[attempt].handed_over = handed_over;
}

void ScanPolicy::TakeVerdict(Try& attempt, const AttemptEnd& end, Time now) {
    const bool clean = end.kind == AttemptEnd::Kind::kClean;
    Decide({clean ? Outcome::Kind::kClean : Outcome::Kind::kInfected}, end.text);
    NoteVerdict(*attempt.server, now);
    Release(attempt, Try::State::kLost);
    for (const Try& other : tries_) {
        if (other.state == Try::State::kErred || IsSilent(other, now)) {
            NoteFailure(fleet_, *other.server, other.progressed, now);
        }
    }
}

void ScanPolicy::Ended(size_t number, const AttemptEnd& end, Time now) {
    Try& attempt = tries_[number];
    Server& server = *attempt.server;
    if (Decided()) {
        return;
    }
    if (end.Replied()) {
        ++server.numbers.replies;
        server.numbers.seconds += std::chrono::duration<double>(now - attempt.began).count();
        last_reply_ = end;
        attempt.progressed = now;
    } else {
        last_failure_ = "upstream " + AddressText(server.name) + " " + end.text;
    }
    switch (end.kind) {
        case AttemptEnd::Kind::kClean:
        case AttemptEnd::Kind::kInfected:
            return TakeVerdict(attempt, end, now);
        case AttemptEnd::Kind::kTooLarge:
            return Release(attempt, Try::State::kTooLarge);
        case AttemptEnd::Kind::kNoVerdict:
            Release(attempt, Try::State::kErred);
            return SuspectForError(server, now);
        case AttemptEnd::Kind::kUnreached:
            Release(attempt, Try::State::kUnreached);
            return NoteBroken(fleet_, server, end, attempt.progressed, now);
        case AttemptEnd::Kind::kBroken:
            Release(attempt, Try::State::kLost);
            return NoteBroken(fleet_, server, end, attempt.progressed, now);
        case AttemptEnd::Kind::kSilent:
            Release(attempt, Try::State::kLost);
            NoteFailure(fleet_, server, attempt.progressed, now);
            return SuspectForSilence(fleet_, server, now);
    }
}

bool ScanPolicy::TakesLong(const Try& attempt, Time now) const {
    return ended_ && now >= std::max(*ended_, attempt.began) + kSilence;
}

// And it takes no data either, which over a slow line could be the reason, and the server works for nobody.
bool ScanPolicy::IsSilent(const Try& attempt, Time now) const {
    return attempt.state == Try::State::kRunning && TakesLong(attempt, now) &&
           now >= std::max(attempt.progressed, attempt.server->health.worked) + kSilence;
}

// It has the scan, or has replied to it and would reply the same again. What it replied before it was down
// says nothing of it now.
bool ScanPolicy::HasAsked(const Server& server) const {
    return std::any_of(tries_.begin(), tries_.end(), [&server](const Try& attempt) {
        const bool asked =
            attempt.state == Try::State::kRunning ||
            (attempt.state < Try::State::kLost && attempt.progressed >= server.health.up_since);
        return attempt.server.get() == &server && asked && !IsForsaken(server, attempt.began);
    });
}

unsigned ScanPolicy::TriesOf(const Server& server) const {
    return static_cast<unsigned>(std::count_if(tries_.begin(), tries_.end(), [&server](const Try& attempt) {
        return attempt.server.get() == &server;
    }));
}

// As many servers have, or had, the scan as may have it. Connections that were lost before they took anything
// do not keep it from a server that has not been tried.
bool ScanPolicy::IsUsedUp(bool for_untried) const {
    unsigned whole = 0, sent = 0;
    for (const Try& attempt : tries_) {
        const bool runs = attempt.state == Try::State::kRunning;
        const bool lost = attempt.state == Try::State::kLost;
        whole += runs || (lost && attempt.handed_over);
        sent += runs || (lost && (attempt.sent || !for_untried));
    }
    return whole >= kMostWholeAttempts || sent >= kMostAttempts || (!tries_.empty() && !repeatable_);
}

// Once it is up and not too busy.
bool ScanPolicy::MayHave(const Server& server) const {
    return !HasAsked(server) && !IsUsedUp(TriesOf(server) == 0);
}

// The server that gets the scan now, if any: first one that has not been tried, then one whose connection
// broke. While others have the scan, all of them must be late, and either they are forsaken, or the further
// server has nothing to do, or few scans had a further server lately.
ServerPtr ScanPolicy::NextServer(Time now) const {
    bool late = true, forsaken = true;
    for (const Try& attempt : tries_) {
        const bool runs = attempt.state == Try::State::kRunning;
        late &= !runs || TakesLong(attempt, now);
        forsaken &= !runs || IsForsaken(*attempt.server, attempt.began);
    }
    if (!late) {
        return nullptr;
    }
    const bool also_busy = forsaken || asked_beside_ || MayAskBeside(fleet_, now);
    return Choose(fleet_, [&](const Server& server) {
        const bool may = (also_busy || server.open == 0) && MayHave(server);
        return may ? std::optional(TriesOf(server)) : std::nullopt;
    });
}

// Why it is useless to wait for a verdict, or for a server that may give one. kNone: there is hope.
Loss ScanPolicy::WhyUseless(Time now) const {
    if (ended_ && now >= *ended_ + limits_.verdict) {
        return Loss::kOverTime;
    }
    if (Runs() || std::any_of(fleet_.servers.begin(), fleet_.servers.end(), [this](const ServerPtr& server) {
            return IsUp(*server) && MayHave(*server);
        })) {
        return Loss::kNone;
    }
    if (!tries_.empty() && !repeatable_) {
        return Loss::kNotRepeatable;
    }
    if (IsUsedUp(false)) {
        return Loss::kUsedUp;
    }
    if (last_reply_ && !fleet_.down_since) {
        return Loss::kNoVerdict;
    }
    if (AllSick(fleet_, *waits_since_)) {
        return Loss::kSick;
    }
    return now >= fleet_.down_since.value_or(now) + limits_.wait ? Loss::kUnreached : Loss::kNone;
}

// Has each server probed that is down and was not asked since the scan waits. Whether an answer is still to
// come: one of those, or whether an error was the server's fault.
bool ScanPolicy::AskTheRest() const {
    using Probe = Server::Health::Probe;
    bool is_to_come = !IsUsedUp(false) && std::any_of(tries_.begin(), tries_.end(), [](const Try& attempt) {
        return attempt.state == Try::State::kErred && attempt.server->health.probe != Probe::kNone;
    });
    for (const ServerPtr& server : fleet_.servers) {
        const Server::Health& health = server->health;
        if (!IsUp(*server) && TriesOf(*server) == 0 && MayHave(*server) &&
            (health.probe != Probe::kNone || health.probed < *waits_since_)) {
            ProbeSoon(*server);
            is_to_come = true;
        }
    }
    return is_to_come;
}

ScanStep ScanPolicy::Begin(const ServerPtr& server, Time now) {
    const bool beside = std::any_of(tries_.begin(), tries_.end(), [](const Try& attempt) {
        return attempt.state == Try::State::kRunning && !IsForsaken(*attempt.server, attempt.began);
    });
    if (beside && server->open != 0 && !std::exchange(asked_beside_, true)) {
        fleet_.beside.Add(now);
    }
    tries_.push_back({server, now, now});
    ++server->open;
    server->last_turn = ++fleet_.turns;
    waits_since_.reset();
    return {server, {}, {}};
}

Answer ScanPolicy::Trickle(Time now) {
    const bool finished = finished_sending_ && trickled_ < kTricklesToFinished &&
                          now >= *finished_sending_ + kTrickleToFinished * (trickled_ + 1);
    if (trickled_ == kVerdictBeginning.size() || !(finished || now >= trickle_at_)) {
        return {};
    }
    trickle_at_ = (finished ? now : trickle_at_) + kTrickle;
    return {Answer::Kind::kPart, std::string(1, kVerdictBeginning[trickled_++])};
}

ScanStep ScanPolicy::Next(Time now) {
    if (stage_ == Stage::kSeeking) {
        for (const Try& attempt : tries_) {
            if (IsSilent(attempt, now)) {
                SuspectForSilence(fleet_, *attempt.server, now);
            }
        }
        if (!Runs()) {
            waits_since_ = waits_since_.value_or(now);
        }
        const Loss loss = WhyUseless(now);
        if (loss != Loss::kNone &&
            (loss == Loss::kOverTime || now >= *waits_since_ + kProbePatience || !AskTheRest())) {
            GiveUp(loss, now);
        } else if (const ServerPtr server = loss == Loss::kNone ? NextServer(now) : nullptr) {
            return Begin(server, now);
        }
    }
    if (stage_ == Stage::kSeeking && ended_) {
        return {nullptr, Trickle(now), {}};
    }
    const bool replies = end_.answer.kind == Answer::Kind::kReply;
    if (replies && !ended_) {
        return {};
    }
    end_.answer.text.erase(0, replies ? trickled_ : 0);
    return std::exchange(end_, {});
}

}  // namespace kesto::bridge
