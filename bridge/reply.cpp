#include "bridge/reply.h"

namespace kesto {

ScanAnswer ReadScanAnswer(std::string_view reply) {
    constexpr std::string_view kFound = " FOUND";
    if (reply == "stream: OK") {
        return ScanAnswer::kClean;
    }
    // The blank at the beginning's end is not the one of " FOUND".
    const bool infected =
        reply.starts_with(kVerdictBeginning) && reply.substr(kVerdictBeginning.size()).ends_with(kFound);
    return infected ? ScanAnswer::kInfected : ScanAnswer::kNoVerdict;
}

bool IsSizeLimit(std::string_view reply) {
    return reply == "INSTREAM size limit exceeded. ERROR";
}

std::string ReplyForClient(std::string_view reply) {
    const bool misleading =
        reply.starts_with(kVerdictBeginning) && ReadScanAnswer(reply) == ScanAnswer::kNoVerdict;
    return (misleading ? "no verdict: " : "") + std::string(reply);
}

}  // namespace kesto
