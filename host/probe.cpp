#include "host/probe.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <thread>

#include "base/clamd_words.h"
#include "common/server_talk.h"
#include "common/text.h"
#include "host/check/test_samples.h"
#include "host/common/output.h"
#include "host/engine_start.h"

namespace kesto::host {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kPause = std::chrono::milliseconds(250);
constexpr auto kConnectLimit = std::chrono::seconds(3);
constexpr auto kOneTry = std::chrono::milliseconds(kIdleLimitMs);

// The answer of the first server that accepts the connection; `words` begins with its address.
ServerAnswer AskFirst(const InstalledPlugin& installed, std::string& words,
                      const std::function<ServerAnswer(const Endpoint&)>& ask) {
    ServerAnswer answer;
    for (const Endpoint& server : installed.servers) {
        answer = ask(server);
        words = Printable(AddressText(server)) + ": ";
        if (answer.connected) {
            break;
        }
    }
    return answer;
}

std::string Outcome(const ServerAnswer& answer) {
    return Printable(answer.reply ? "the reply was \"" + Utf8FromAnsi(*answer.reply) + "\"" : answer.failure);
}

}  // namespace

bool VersionIsTold(const InstalledPlugin& installed) {
    return AskServer(installed.servers.front(), kVersionCommand, Clock::now() + kConnectLimit)
        .reply.has_value();
}

Fault AwaitEngine(const InstalledPlugin& installed, unsigned wait_seconds, std::string& words) {
    const Deadline end = Clock::now() + std::chrono::seconds(wait_seconds);
    for (;;) {
        const Deadline deadline =
            wait_seconds == 0 ? Clock::now() + kOneTry : std::min<Deadline>(Clock::now() + kOneTry, end);
        const ServerAnswer answer = AskFirst(installed, words, [&](const Endpoint& server) {
            CountOwnScan();
            return AnswerTo(ScanQuestion(server, kCleanSample, installed.settings.encrypt), deadline);
        });
        if (answer.reply == kCleanReply) {
            words += "answers, in " + DurationText(answer.seconds);
            return {};
        }
        words += Outcome(answer);
        if (Clock::now() + kPause >= end) {
            return {"the engine does not answer - " + words};
        }
        std::this_thread::sleep_for(kPause);
    }
}

std::string NoServerAccepts(const InstalledPlugin& installed) {
    std::string words;
    const ServerAnswer answer = AskFirst(installed, words, [](const Endpoint& server) {
        return AnswerTo({server}, Clock::now() + kConnectLimit);
    });
    return answer.connected ? "" : "no server accepts a connection - " + words + Outcome(answer);
}

int Ping(const InstalledPlugin& installed, unsigned wait_seconds) {
    std::string words;
    if (const Fault fault = AwaitEngine(installed, wait_seconds, words)) {
        return Complain(fault.text);
    }
    PrintOut(words + "\n");
    return kExitClean;
}

int PrintStats(const InstalledPlugin& installed) {
    std::string words;
    const ServerAnswer answer = AskFirst(installed, words, [](const Endpoint& server) {
        return AskServer(server, kStatsCommand, Clock::now() + kOneTry);
    });
    if (!answer.reply || answer.reply->starts_with("UNKNOWN")) {
        return Complain("no counters - " + words + Outcome(answer));
    }
    PrintOut(PrintableLines(*answer.reply) + (answer.reply->ends_with('\n') ? "" : "\n"));
    return kExitClean;
}

}  // namespace kesto::host
