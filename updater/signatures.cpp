#include "updater/signatures.h"

#include <chrono>
#include <optional>
#include <string>

#include "base/clamd_words.h"
#include "common/bridge_log.h"
#include "common/server_talk.h"
#include "common/signatures.h"

namespace kesto::updater {
namespace {

constexpr auto kAnswerLimit = std::chrono::seconds(10);

}  // namespace

uint32_t LookAtSignatures(const BridgeSettings& settings) {
    const auto now = std::chrono::system_clock::now();
    unsigned answers = 0;
    unsigned young = 0;
    for (const ServerAddress& upstream : settings.upstreams) {
        const ServerAnswer answer = AskServer({upstream.host, upstream.port}, kVersionCommand,
                                              std::chrono::steady_clock::now() + kAnswerLimit);
        const std::string name = AddressText(upstream);
        if (!answer.reply) {
            LogBridge(name, name + " does not answer: " + answer.failure);
            continue;
        }
        ++answers;
        const auto signatures = ReadSignatures(*answer.reply);
        const int age = signatures ? AgeInDays(*signatures, now) : 0;
        young += signatures && age < static_cast<int>(settings.signatures) ? 1 : 0;
        LogBridge(name, name + ": " + *answer.reply + ": " +
                            (signatures ? "signatures from " + std::to_string(age) + " days ago"
                                        : "signatures of unknown age"));
    }
    if (answers == 0) {
        LogBridge("result", "no clamd answers");
    } else if (young < answers) {
        LogBridge("result", std::to_string(answers - young) + " of " + std::to_string(answers) +
                                " clamds have no signatures younger than signatures=" +
                                std::to_string(settings.signatures) +
                                " days: check their own updater (freshclam), or name one in command=");
    }
    return answers != 0 && young == answers ? 0 : 1;
}

}  // namespace kesto::updater
