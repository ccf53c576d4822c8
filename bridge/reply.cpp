#include "bridge/reply.h"

#include <utility>

#include "base/clamd_words.h"

namespace kesto::bridge {

AttemptEnd EndOfReply(std::string reply) {
    using Kind = AttemptEnd::Kind;
    const ScanAnswer answer = ReadScanAnswer(reply);
    const Kind kind = answer == ScanAnswer::kClean      ? Kind::kClean
                      : answer == ScanAnswer::kInfected ? Kind::kInfected
                      : reply == kSizeLimitReply        ? Kind::kTooLarge
                                                        : Kind::kNoVerdict;
    return {kind, std::move(reply)};
}

std::string ReplyForClient(const AttemptEnd& reply) {
    const bool misleading = !reply.Verdict() && reply.text.starts_with(kVerdictBeginning);
    return (misleading ? "no verdict: " : "") + reply.text;
}

}  // namespace kesto::bridge
