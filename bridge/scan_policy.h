// Decides what is done for one scan: which server gets it next, when a second one gets it as well, and what
// the client is told. Knows neither sockets nor clocks: it is told what happened, and when.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "bridge/fleet.h"
#include "bridge/outcome.h"
#include "bridge/reply.h"

namespace kesto::bridge {

struct ScanLimits {
    std::chrono::seconds wait;     // while no server is up, from when the last one went down
    std::chrono::seconds verdict;  // from the stream's end
};

// What is to be done now.
struct ScanStep {
    ServerPtr server;  // if any: begin the next attempt, with this server, and ask again
    Answer answer;     // else
    Outcome outcome;   // of the end
};

class ScanPolicy {
 public:
    ScanPolicy(Fleet& fleet, ScanLimits limits) : fleet_(fleet), limits_(limits) {}
    ScanPolicy(const ScanPolicy&) = delete;
    ScanPolicy& operator=(const ScanPolicy&) = delete;
    ~ScanPolicy();  // attempts that still run are cancelled

    // Of the client.
    void EnoughCame();           // for a server to be taken
    void StreamEnded(Time now);  // all of it came
    // Its side of the connection is closed; it may also have left.
    void FinishedSending(Time now) { finished_sending_ = now; }

    // A part of the stream that an attempt has sent is gone: no other attempt can begin.
    void NotRepeatable() { repeatable_ = false; }

    // Of an attempt, by its number: they count from 0.
    void Progressed(size_t attempt, bool handed_over, Time now);  // it took data, or the last of it
    void Ended(size_t attempt, const AttemptEnd& end, Time now);

    ScanStep Next(Time now);

    // No more of the stream is needed, although the reply is not sent before its end.
    bool Decided() const { return stage_ == Stage::kDecided; }
    bool StreamHasEnded() const { return ended_.has_value(); }
    // No server has the scan, and none can take it.
    bool Waits() const { return stage_ == Stage::kSeeking && waits_since_; }

 private:
    enum class Stage {
        kFilling,  // too little of the stream has come to choose a server
        kSeeking,  // it seeks a verdict
        kDecided,  // the outcome is known
    };
    // What is known of an attempt.
    struct Try {
        enum class State { kRunning, kTooLarge, kErred, kLost, kUnreached };
        ServerPtr server;
        Time began;
        Time progressed;  // when it took data last, or replied
        State state = State::kRunning;
        bool sent = false;
        bool handed_over = false;
    };

    bool Runs() const;
    void Release(Try& attempt, Try::State state);
    void Decide(Outcome outcome, std::string text);
    void GiveUp(Loss loss, Time now);
    std::string WordsOf(Loss loss) const;
    void TakeVerdict(Try& attempt, const AttemptEnd& end, Time now);
    bool TakesLong(const Try& attempt, Time now) const;
    bool IsSilent(const Try& attempt, Time now) const;
    bool HasAsked(const Server& server) const;
    unsigned TriesOf(const Server& server) const;
    bool IsUsedUp(bool for_untried) const;
    bool MayHave(const Server& server) const;
    ServerPtr NextServer(Time now) const;
    Loss WhyUseless(Time now) const;
    bool AskTheRest() const;
    ScanStep Begin(const ServerPtr& server, Time now);
    Answer Trickle(Time now);

    Fleet& fleet_;
    ScanLimits limits_;
    Stage stage_ = Stage::kFilling;
    std::vector<Try> tries_;
    bool repeatable_ = true;
    bool asked_beside_ = false;
    std::optional<Time> ended_;
    std::optional<Time> finished_sending_;
    std::optional<Time> waits_since_;
    size_t trickled_ = 0;
    Time trickle_at_;
    std::optional<AttemptEnd> last_reply_;  // without a verdict
    std::string last_failure_;
    ScanStep end_;
};

}  // namespace kesto::bridge
