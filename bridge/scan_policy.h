// What is to be done for one scan: which server gets it next, when a second one beside the first, what the
// client is told and when nothing. Knows neither sockets nor clocks: it is told what happened, and when.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/clamd_words.h"
#include "bridge/fleet.h"
#include "bridge/reply.h"

namespace kesto::bridge {

struct ScanLimits {
    std::chrono::seconds wait;     // while no server is up, from when the last one went down
    std::chrono::seconds verdict;  // from the stream's end
};

struct ScanStep {
    enum Kind {
        kNothing,  // until something happens; ask again every now and then
        kAttempt,  // begin this attempt with this server, and ask again
        kTrickle,  // send the client the text
        kReply,    // send the client the text and a NUL: the end
        kNoReply,  // close without a reply, the text tells why: the end
    };
    Kind kind = kNothing;
    size_t attempt = 0;  // its number, by which it is spoken of later
    ServerPtr server;
    std::string text;
};

class ScanPolicy {
 public:
    ScanPolicy(Fleet& fleet, ScanLimits limits) : fleet_(fleet), limits_(limits) {}
    ScanPolicy(const ScanPolicy&) = delete;
    ScanPolicy& operator=(const ScanPolicy&) = delete;
    ~ScanPolicy();  // attempts that still run are called off

    // Of the client.
    void EnoughCame();               // for a server to be taken
    void StreamEnded(Time now);      // all of it came
    void FinishedSending(Time now);  // its side of the connection is closed: it may have left altogether

    // Part of the stream is gone that an attempt has sent: no other can begin any more.
    void NotRepeatable() { repeatable_ = false; }

    // Of an attempt.
    void Progressed(size_t attempt, bool handed_over, Time now);  // it took data, or the rest of them
    void Replied(size_t attempt, const std::string& reply, Time now);
    void Broken(size_t attempt, const std::string& reason, Time now);  // no reply: the server's fault
    void Silent(size_t attempt, const std::string& reason, Time now);  // it took no data for too long

    ScanStep Next(Time now);

    // The end is known, though a reply is not told before the stream's end: no more of the stream is needed.
    bool Decided() const { return decided_; }
    // No server has the scan, and there is none to take it.
    bool Waits() const { return waits_; }
    // How it ended; nothing before its end.
    std::optional<ScanAnswer> Answer() const { return answer_; }

 private:
    struct Attempt {
        ServerPtr server;
        Time began;
        Time progressed;
        bool running = true;
        bool handed_over = false;
        bool erred = false;  // replied without a verdict, and not for the file's size
        bool replied = false;
    };

    void End(Attempt& attempt, Time now);
    void Decide(ScanStep::Kind kind, std::string text);
    void DecideWithoutVerdict(const std::string& reason);
    bool TakesLong(const Attempt& attempt, Time now) const;
    bool IsSilent(const Attempt& attempt, Time now) const;
    bool MayBegin(Time now);
    ScanStep Begin(const ServerPtr& server, Time now);
    ServerPtr NextServer() const;
    bool ServerIsLeft() const;
    ScanStep Trickle(Time now);

    Fleet& fleet_;
    ScanLimits limits_;
    std::vector<Attempt> attempts_;
    bool enough_ = false;
    bool repeatable_ = true;
    bool asked_beside_ = false;
    bool decided_ = false;
    bool told_ = false;
    bool waits_ = false;
    std::optional<Time> ended_;
    std::optional<Time> finished_sending_;
    std::optional<Time> waits_since_;
    size_t trickled_ = 0;
    Time trickle_at_;
    std::optional<std::string> last_reply_;  // without a verdict
    std::string last_failure_;
    ScanStep end_;
    std::optional<ScanAnswer> answer_;
};

}  // namespace kesto::bridge
