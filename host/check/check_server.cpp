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
constexpr double kSlowReply = 15;     // seconds; close to the plug-in's limit of 20
constexpr int kOldDays = 7;           // signatures appear daily
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
    switch (VerdictOf(answer)) {
        case ScanAnswer::kClean:
            return "found clean" + time;
        case ScanAnswer::kInfected:
            return "found infected with " + Utf8FromAnsi(VerdictOfReply(*answer.reply).text) + time;
        case ScanAnswer::kNoVerdict:
            break;
    }
    if (!answer.reply) {
        return answer.failure + time;
    }
    const bool passes = VerdictOfReply(*answer.reply).kind == VerdictKind::kClean;
    return "the reply was " + Quoted(*answer.reply) + time +
           (passes ? ", which the plug-in takes for clean" : "");
}

// What a server is asked after it has accepted a connection.
enum Asked { kPing, kVersion, kClean, kEicar, kLong, kEicarOtherShift, kAllAsked };

class ServerCheck {
 public:
    ServerCheck(const CheckedServer& server, ServerTalks& talks) : server_(server), talks_(talks) {
        talks_.Put({.server = server_.address, .as_the_plug_in = server_.of_plugin},
                   [this](const ServerAnswer& answer) {
                       if (TellConnection(answer)) {
                           AskAll();
                       }
                       done_ = open_ == 0;
                   });
    }

    const Findings& All() const { return findings_; }
    bool Done() const { return done_; }

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
        done_ = true;
    }

    std::string Check(const char* what) const { return server_.name + " " + what; }

    bool TellConnection(const ServerAnswer& answer) {
        const std::string check = Check("connection");
        const std::string setting =
            server_.of_plugin ? "servers= in kestoav.ini" : "upstreams= in bridge.ini";
        if (!answer.connected) {
            findings_.Failed(
                check, "not made: " + answer.failure,
                answer.name_failed
                    ? "write an address in place of the name into " + setting +
                          ", or have the name service know it"
                    : "start what listens there, open the firewall for it, or correct " + setting);
            return false;
        }
        const std::string text = "made in " + DurationText(answer.seconds);
        if (server_.of_plugin && answer.seconds > kSlowConnect) {
            findings_.Warning(check, text,
                              "a server that takes over 1000 ms is passed over: use a nearer one");
        } else {
            findings_.Ok(check, text);
        }
        return true;
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
        const std::string check = Check("zPING");
        const std::string remedy =
            server_.of_plugin
                ? "see the engine's log: the clamd behind it may be down or still loading"
                : "see clamd's log: it may still be loading, or another program may have the port";
        if (answer.reply && *answer.reply == "PONG") {
            findings_.Ok(check, "answered");
        } else if (answer.reply) {
            findings_.Warning(check, "answered " + Quoted(*answer.reply) + Owner(),
                              "check that a clamd listens there, or the engine in front of one");
        } else if (std::none_of(answers_.begin(), answers_.end(),
                                [](const auto& any) { return any.reply; })) {
            findings_.Failed(check, "no answer: " + answer.failure + Owner(), remedy);
            return false;
        } else {
            findings_.Warning(check, "no answer: " + answer.failure, remedy);
        }
        return true;
    }

    void TellVersion(const ServerAnswer& answer) {
        const std::string check = Check("zVERSION");
        const std::string remedy = "run the signature updater on the engine's machine";
        if (!answer.reply) {
            findings_.Warning(check, "no answer: the age of its signatures is unknown",
                              "see the engine's log");
            return;
        }
        const std::string& reply = *answer.reply;
        const auto signatures = ReadSignatures(reply);
        const int age = signatures ? AgeInDays(*signatures, std::chrono::system_clock::now()) : 0;
        if (!signatures) {
            findings_.Warning(check, Quoted(reply) + ": the age of its signatures is unknown", remedy);
        } else if (age > kOldDays) {
            findings_.Warning(
                check, Quoted(reply) + ": its signatures are " + std::to_string(age) + " days old", remedy);
        } else if (age < -1) {  // one day may be due to the time zone
            findings_.Warning(check, Quoted(reply) + ": the date of its signatures is in the future",
                              "set the clocks of both machines");
        } else {
            findings_.Ok(check, Quoted(reply));
        }
    }

    bool TellCleanSample(const ServerAnswer& answer) {
        const std::string check = Check("clean sample");
        const bool clean = VerdictOf(answer) == ScanAnswer::kClean;
        if (!clean) {
            findings_.Failed(check, Describe(answer), "see the engine's log");
        } else if (answer.seconds > kSlowReply) {
            findings_.Warning(check, Describe(answer),
                              "the plug-in gives up after 20 s: give the engine's machine less to do");
        } else {
            findings_.Ok(check, Describe(answer));
        }
        return clean;
    }

    void TellEicar(const ServerAnswer& answer, const ServerAnswer& other_shift) {
        const std::string check = Check("EICAR");
        const bool clean = VerdictOf(answer) == ScanAnswer::kClean;
        const std::string setting = std::string("encrypt=") + (server_.encrypt ? "1" : "0");
        if (VerdictOf(answer) == ScanAnswer::kInfected) {
            findings_.Ok(check, Describe(answer) + (server_.of_plugin ? ", with " + setting : ""));
        } else if (clean && VerdictOf(other_shift) == ScanAnswer::kInfected) {
            TellOtherShift(check);
        } else {
            findings_.Failed(
                check, Describe(answer),
                clean ? "check that the engine has loaded its signatures" : "see the engine's log");
        }
    }

    void TellOtherShift(const std::string& check) {
        findings_.Failed(check,
                         server_.of_plugin
                             ? std::string("found only with encrypt=") + (server_.encrypt ? "0" : "1") +
                                   ": plug-in and engine do not agree, and every virus passes"
                             : "found only in shifted bytes, which the bridge does not send",
                         server_.shift_remedy);
    }

    void TellLongStream(const ServerAnswer& answer) {
        const std::string check = Check("2 MB stream");
        if (VerdictOf(answer) != ScanAnswer::kClean) {
            findings_.Failed(
                check, Describe(answer),
                answer.reply == kSizeLimitReply
                    ? "raise StreamMaxLength in clamd.conf above the largest mail that is accepted"
                    : "see the engine's log");
        } else if (!server_.of_plugin) {
            findings_.Ok(check, Describe(answer));
        }
    }

    const CheckedServer server_;
    ServerTalks& talks_;
    std::array<ServerAnswer, kAllAsked> answers_;
    int open_ = 0;  // questions without an answer
    bool done_ = false;
    Findings findings_;
};

}  // namespace

std::vector<Findings> AskServers(const std::vector<CheckedServer>& servers, Deadline deadline) {
    ServerTalks talks(deadline);
    std::list<ServerCheck> checks;
    for (const CheckedServer& server : servers) {
        checks.emplace_back(server, talks);
    }
    const auto done = [](const ServerCheck& check) { return check.Done(); };
    talks.Run([&] {
        ShowStep("the servers: " + std::to_string(std::count_if(checks.begin(), checks.end(), done)) +
                 " of " + std::to_string(checks.size()) + " done");
    });
    std::vector<Findings> all;
    for (const ServerCheck& check : checks) {
        all.push_back(check.All());
    }
    return all;
}

}  // namespace kesto::host
