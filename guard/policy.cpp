#include "guard/policy.h"

#include <algorithm>
#include <utility>

#include "base/clamd_words.h"
#include "common/guard_words.h"

namespace kesto::guard {
namespace {

using namespace std::chrono_literals;

static_assert(kLongestSilence + 3s < std::chrono::milliseconds(kIdleLimitMs));

// A start costs little, so that a second is enough between two of workers that end again and again. One that
// has served for a while before its end is none of these.
constexpr auto kFirstPause = 250ms;
constexpr auto kLongestPause = 1000ms;
constexpr auto kSettled = 500ms;

// Until settings that cannot be followed are tried again.
constexpr auto kSettingsPause = 5s;

// How long clients wait for a worker. A mail that waits is better than one that is refused.
constexpr auto kLongestWait = 10s;
static_assert(kLongestWait + 5s < std::chrono::milliseconds(kIdleLimitMs));

// So long between two looks: the machine was asleep, and its workers with it.
constexpr auto kStandstill = 2s;

}  // namespace

bool Policy::Any(State state) const {
    return std::any_of(workers_.begin(), workers_.end(),
                       [state](const Worker& worker) { return worker.state == state; });
}

Policy::Worker* Policy::Find(uint32_t number) {
    const auto at = std::find_if(workers_.begin(), workers_.end(),
                                 [number](const Worker& worker) { return worker.number == number; });
    return at == workers_.end() ? nullptr : &*at;
}

void Policy::Look(Time now) {
    if (now > std::exchange(looked_, now) + kStandstill) {
        for (Worker& worker : workers_) {
            worker.heard = now;
        }
    }
}

void Policy::GaveSign(uint32_t number, Time now) {
    if (Worker* worker = Find(number)) {
        worker->heard = now;
        if (worker->state == State::kStarting) {
            worker->state = State::kServing;
            told_ = false;
            waiting_.reset();
        }
    }
}

void Policy::AcceptsNobody(uint32_t number) {
    if (Worker* worker = Find(number); worker != nullptr && worker->state == State::kLeaving) {
        worker->state = State::kClosed;
    }
}

void Policy::StartFailed(uint32_t number, const std::string& why, Time now) {
    std::erase_if(workers_, [number](const Worker& worker) { return worker.number == number; });
    followed_ = true;
    next_start_ = now + kFirstPause;  // what does not start costs next to nothing
    if (number == restarted_by_) {
        refusal_ = why;
    }
}

std::string Policy::Ended(uint32_t number, uint32_t exit_code, const std::string& how, Time now) {
    const Worker* found = Find(number);
    if (found == nullptr) {
        return "";
    }
    const Worker worker = *found;
    workers_.erase(workers_.begin() + (found - workers_.data()));
    if (worker.state == State::kLeaving || worker.state == State::kClosed) {
        return exit_code == 0 ? "" : "the former kestobridge.exe " + how;
    }
    if (worker.state == State::kServing && now > worker.started + kSettled) {
        pause_ = {};
    }
    const bool tells = exit_code == kCannotFollow || exit_code == kCannotTakeOver;
    told_ = tells || (told_ && worker.state == State::kServing);
    followed_ = exit_code != kCannotFollow;
    if (followed_) {
        next_start_ = now + pause_;
        pause_ = std::clamp<std::chrono::milliseconds>(2 * pause_, kFirstPause, kLongestPause);
    } else {
        next_start_ = now + kSettingsPause;
    }
    if (number == restarted_by_) {
        refusal_ = "the new kestobridge.exe " + how;
    }
    return followed_ ? "kestobridge.exe " + how : "";
}

void Policy::ClientsWait(bool wait, Time now) {
    waiting_ = wait ? waiting_.value_or(now) : std::optional<Time>();
}

bool Policy::IsToTurnAway(Time now) const {
    return !Serves() && waiting_ && (!followed_ || now >= *waiting_ + kLongestWait);
}

Step Policy::Next(Time now) {
    for (Worker& worker : workers_) {
        const auto limit = worker.state == State::kStarting && Serves() ? kLongestStart : kLongestSilence;
        if (now > worker.heard + limit) {
            return {Step::Kind::kEnd, worker.number,
                    "gave no sign of life for " + std::to_string(limit.count()) + " s and was ended"};
        }
        // The newest stands last.
        if (worker.state == State::kServing &&
            std::any_of(&worker + 1, workers_.data() + workers_.size(),
                        [](const Worker& newer) { return newer.state == State::kServing; })) {
            worker.state = State::kLeaving;
            return {Step::Kind::kTellToLeave, worker.number, ""};
        }
    }
    const Worker* restarted = asked_ ? Find(restarted_by_) : nullptr;
    const bool done = restarted != nullptr && restarted->state == State::kServing && !Any(State::kLeaving);
    if (asked_ && (done || !refusal_.empty())) {
        Step answer{Step::Kind::kAnswer, 0, done ? kRestarted : std::exchange(refusal_, "")};
        asked_ = false;
        restarted_by_ = 0;
        return answer;
    }
    // Who asks wants a worker that reads its settings from now on.
    const bool restart = asked_ && restarted == nullptr;
    if (!Any(State::kStarting) && (restart || (!Serves() && now >= next_start_))) {
        workers_.push_back({++starts_, State::kStarting, now, now});
        restarted_by_ = restart ? starts_ : restarted_by_;
        return {Step::Kind::kStart, starts_, ""};
    }
    return {};
}

}  // namespace kesto::guard
