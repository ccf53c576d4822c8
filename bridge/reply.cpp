#include "bridge/reply.h"

#include "base/clamd_words.h"

namespace kesto::bridge {

std::string ReplyForClient(std::string_view reply) {
    const bool misleading =
        reply.starts_with(kVerdictBeginning) && ReadScanAnswer(reply) == ScanAnswer::kNoVerdict;
    return (misleading ? "no verdict: " : "") + std::string(reply);
}

}  // namespace kesto::bridge
