// What the guard decides: when a worker is started and when a silent one is ended, who is told what while one
// replaces another, and when clients that wait are turned away. It is told what has happened, and answers
// what is to be done; it knows no handles and no clock.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kesto::guard {

using Time = std::chrono::steady_clock::time_point;

struct Step {
    enum class Kind {
        kNothing,
        kStart,        // the worker, or else say why it cannot be: StartFailed
        kTellToLeave,  // tell the worker
        kEnd,          // end the worker, which says `text` of it: Ended
        kAnswer,       // give `text` to whoever has asked for a restart
    };
    Kind kind = Kind::kNothing;
    uint32_t worker = 0;  // by its number: the first one started is 1
    std::string text;
};

class Policy {
 public:
    explicit Policy(Time now) : looked_(now) {}

    // What has happened. Look comes first each time, several times a second. Of workers that are not known
    // nothing is taken up.
    void Look(Time now);
    void GaveSign(uint32_t worker, Time now);
    void AcceptsNobody(uint32_t worker);  // which tells something of one that was told to leave only
    void StartFailed(uint32_t worker, const std::string& why, Time now);
    // It has ended, as `how` tells; returns what is to be logged.
    std::string Ended(uint32_t worker, uint32_t exit_code, const std::string& how, Time now);
    void RestartAsked() { asked_ = true; }  // once before each answer
    void ClientsWait(bool wait, Time now);  // in the system's queue; asked while none serves

    // What is to be done next.
    Step Next(Time now);

    bool Serves() const { return Any(State::kServing); }
    // A change is awaited that may come at any moment.
    bool IsTense() const { return !Serves() || asked_; }
    // The worker that is to be started meets a problem that the one before it has logged.
    bool IsProblemKnown() const { return told_; }
    bool IsToTurnAway(Time now) const;

 private:
    enum class State {
        kStarting,  // no sign of life yet
        kServing,
        kLeaving,  // has been told to, but may accept clients still
        kClosed,   // accepts nobody any more, and ends after its running scans
    };
    struct Worker {
        uint32_t number;
        State state;
        Time started;
        Time heard;
    };

    bool Any(State state) const;
    Worker* Find(uint32_t number);

    std::vector<Worker> workers_;
    uint32_t starts_ = 0;
    Time looked_;
    Time next_start_{};
    std::chrono::milliseconds pause_{};
    bool told_ = false;            // none has served since one has logged why it cannot
    bool followed_ = true;         // false: the last one has ended since it cannot follow the settings
    std::optional<Time> waiting_;  // since when clients wait
    bool asked_ = false;           // for a restart
    uint32_t restarted_by_ = 0;    // the worker that was started for it
    std::string refusal_;          // the answer if it has failed
};

}  // namespace kesto::guard
