#include "host/check/check_server.h"

#include <algorithm>
#include <array>
#include <list>
#include <optional>
#include <string_view>

#include "base/clamd_words.h"
#include "common/signatures.h"
#include "common/text.h"
#include "host/check/test_samples.h"
#include "host/common/port_owner.h"

namespace kesto::host {
namespace {

constexpr double kSlowConnect = 0.3;  // seconds; close to the plug-in's limit of 1
constexpr double kToldSeconds = 1;    // seconds; scans that take longer are told with their time
constexpr double kSlowReply = kIdleLimitMs / 1000.0 - 5;  // seconds; close to where the plug-in gives up
constexpr int kOldDays = 7;                               // signatures appear daily
constexpr size_t kLongStream = 2 << 20;
constexpr int kTries = 5;  // for each question to a server that hangs up, as a starting engine does
constexpr auto kTriesPause = std::chrono::milliseconds(500);

std::string Quoted(std::string_view reply) {
    return "\"" + Utf8FromAnsi(reply.substr(0, 200)) + "\"";
}

ScanAnswer VerdictOf(const ServerAnswer& answer) {
    return answer.reply ? ReadScanAnswer(*answer.reply) : ScanAnswer::kNoVerdict;
}

std::string Describe(const ServerAnswer& answer) {
    const std::string time = answer.seconds > kToldSeconds ? " after " + DurationText(answer.seconds) : "";
    if (!answer.reply) {
        return answer.failure + time;
    }
    const ScanAnswer verdict = VerdictOf(answer);
    const auto taken = VerdictOfReply(*answer.reply);  // by the plug-in
    return verdict == ScanAnswer::kClean ? "found clean" + time
           : verdict == ScanAnswer::kInfected
               ? "found infected with " + Utf8FromAnsi(taken.text) + time
               : "the reply was " + Quoted(*answer.reply) + time +
                     (taken.kind == VerdictKind::kClean ? ", which the plug-in takes for clean" : "");
}

// What a server is asked after it has accepted a connection.
enum Asked { kPing, kVersion, kClean, kEicar, kLong, kEicarOtherShift, kAllAsked };

class ServerCheck {
 public:
    ServerCheck(const CheckedServer& server, ServerTalks& talks) : server_(server), talks_(talks) {
        talks_.Put({.server = server_.address, .as_the_plug_in = server_.of_plugin},
                   [this](const ServerAnswer& answer) {
                       --open_;
                       if (TellConnection(answer)) {
                           AskAll();
                       }
                   });
    }

    bool Done() const { return open_ == 0; }

    Findings findings;

 private:
    // All at the same time, since a server may take seconds for each.
    void AskAll() {
        std::string long_text;
        while (long_text.size() < kLongStream) {
            long_text += kCleanSample;
        }
        Ask(kPing, {server_.address, std::string(kPingCommand)}, kTries);
        Ask(kVersion, {server_.address, std::string(kVersionCommand)}, kTries);
        Ask(kClean, ScanQuestion(server_.address, kCleanSample, server_.encrypt));
        Ask(kEicar, ScanQuestion(server_.address, EicarTestString(), server_.encrypt));
        Ask(kLong, ScanQuestion(server_.address, long_text, server_.encrypt));
    }

    void Ask(Asked what, const Question& question, int tries = 1, std::chrono::milliseconds pause = {}) {
        ++open_;
        talks_.Put(
            question,
            [this, what, question, tries](const ServerAnswer& answer) {
                answers_[what] = answer;
                --open_;
                if (!answer.reply && answer.seconds <= kToldSeconds && tries > 1) {
                    Ask(what, question, tries - 1, kTriesPause);
                } else if (open_ == 0) {
                    Answered(what);
                }
            },
            pause);
    }

    void Answered(Asked last) {
        if (last != kEicarOtherShift && VerdictOf(answers_[kEicar]) == ScanAnswer::kClean) {
            Ask(kEicarOtherShift, ScanQuestion(server_.address, EicarTestString(), !server_.encrypt));
            return;
        }
        if (TellPing(answers_[kPing])) {
            TellVersion(answers_[kVersion]);
            const bool scans = TellCleanSample(answers_[kClean]);
            TellEicar(answers_[kEicar], answers_[kEicarOtherShift]);
            if (scans) {
                TellLongStream(answers_[kLong]);
            }
        }
    }

    void Tell(CheckState state, const char* what, const std::string& text, const std::string& remedy) {
        findings.Add(state, server_.name + " " + what, text, remedy);
    }

    bool TellConnection(const ServerAnswer& answer) {
        const bool slow = server_.of_plugin && answer.seconds > kSlowConnect;
        const std::string setting =
            server_.of_plugin ? "servers= in kestoav.ini" : "upstreams= in bridge.ini";
        if (answer.connected) {
            Tell(slow ? CheckState::kWarning : CheckState::kOk, "connection",
                 "made in " + DurationText(answer.seconds),
                 "a server that takes over 1000 ms is passed over: use a nearer one");
        } else {
            Tell(CheckState::kFailed, "connection", "not made: " + answer.failure,
                 answer.name_failed
                     ? "write an address in place of the name into " + setting +
                           ", or have the name service know it"
                     : "start what listens there, open the firewall for it, or correct " + setting);
        }
        return answer.connected;
    }

    // Names the program of this machine that has the port, unless it is an engine.
    std::string Owner() const {
        const auto owner = server_.address.host.starts_with("127.")
                               ? ListenerOn(server_.address.host, server_.address.port)
                               : std::nullopt;
        const bool told = owner && !owner->program.empty() && owner->program != "kestoav.exe";
        return told ? "; the port belongs to " + OwnerText(*owner) : "";
    }

    // False when nothing else was answered either.
    bool TellPing(const ServerAnswer& answer) {
        const bool any = std::any_of(answers_.begin(), answers_.end(),
                                     [](const ServerAnswer& each) { return each.reply.has_value(); });
        if (answer.reply == "PONG") {
            Tell(CheckState::kOk, "zPING", "answered", "");
        } else if (answer.reply) {
            Tell(CheckState::kWarning, "zPING", "answered " + Quoted(*answer.reply) + Owner(),
                 "check that a clamd listens there, or the engine in front of one");
        } else {
            Tell(any ? CheckState::kWarning : CheckState::kFailed, "zPING",
                 "no answer: " + answer.failure + (any ? "" : Owner()),
                 server_.of_plugin
                     ? "see the engine's log: the clamd behind it may be down or still loading"
                     : "see clamd's log: it may still be loading, or another program may have the port");
        }
        return any;
    }

    void TellVersion(const ServerAnswer& answer) {
        const auto signatures = ReadSignatures(answer.reply.value_or(""));
        const int age = signatures ? AgeInDays(*signatures, std::chrono::system_clock::now()) : 0;
        const bool future = age < -1;  // one day may be due to the time zone
        const bool well = signatures && age <= kOldDays && !future;
        Tell(well ? CheckState::kOk : CheckState::kWarning, "zVERSION",
             (answer.reply ? Quoted(*answer.reply) : "no answer") +
                 (well          ? ""
                  : !signatures ? ": the age of its signatures is unknown"
                  : future      ? ": the date of its signatures is in the future"
                                : ": its signatures are " + std::to_string(age) + " days old"),
             !answer.reply ? "see the engine's log"
             : future      ? "set the clocks of both machines"
                           : "run the signature updater on the engine's machine");
    }

    bool TellCleanSample(const ServerAnswer& answer) {
        const bool clean = VerdictOf(answer) == ScanAnswer::kClean;
        const bool slow = answer.seconds > kSlowReply;
        Tell(!clean ? CheckState::kFailed
             : slow ? CheckState::kWarning
                    : CheckState::kOk,
             "clean sample", Describe(answer),
             clean ? "the plug-in gives up after " + std::to_string(kIdleLimitMs / 1000) +
                         " s: give the engine's machine less to do"
                   : "see the engine's log");
        return clean;
    }

    void TellEicar(const ServerAnswer& answer, const ServerAnswer& other_shift) {
        const bool clean = VerdictOf(answer) == ScanAnswer::kClean;
        const char* const with[] = {"encrypt=0", "encrypt=1"};
        if (VerdictOf(answer) == ScanAnswer::kInfected) {
            Tell(CheckState::kOk, "EICAR",
                 Describe(answer) + (server_.of_plugin ? std::string(", with ") + with[server_.encrypt] : ""),
                 "");
        } else if (clean && VerdictOf(other_shift) == ScanAnswer::kInfected) {
            Tell(CheckState::kFailed, "EICAR",
                 server_.of_plugin ? std::string("found only with ") + with[!server_.encrypt] +
                                         ": plug-in and engine do not agree, and every virus passes"
                                   : "found only in shifted bytes, which the bridge does not send",
                 server_.shift_remedy);
        } else {
            Tell(CheckState::kFailed, "EICAR", Describe(answer),
                 clean ? "check that the engine has loaded its signatures" : "see the engine's log");
        }
    }

    void TellLongStream(const ServerAnswer& answer) {
        const bool clean = VerdictOf(answer) == ScanAnswer::kClean;
        if (!clean || !server_.of_plugin) {
            Tell(clean ? CheckState::kOk : CheckState::kFailed, "2 MB stream", Describe(answer),
                 answer.reply == kSizeLimitReply
                     ? "raise StreamMaxLength in clamd.conf above the largest mail that is accepted"
                     : "see the engine's log");
        }
    }

    const CheckedServer server_;
    ServerTalks& talks_;
    std::array<ServerAnswer, kAllAsked> answers_;
    int open_ = 1;  // questions without an answer; the first is whether it can be connected to
};

}  // namespace

std::vector<Findings> AskServers(const std::vector<CheckedServer>& servers, Deadline deadline) {
    ServerTalks talks(deadline);
    std::list<ServerCheck> checks;
    for (const CheckedServer& server : servers) {
        checks.emplace_back(server, talks);
    }
    talks.Run([&] {
        const auto done = std::count_if(checks.begin(), checks.end(),
                                        [](const ServerCheck& check) { return check.Done(); });
        ShowStep("the servers: " + std::to_string(done) + " of " + std::to_string(checks.size()) + " done");
    });
    std::vector<Findings> all;
    for (const ServerCheck& check : checks) {
        all.push_back(check.findings);
    }
    return all;
}

}  // namespace kesto::host
