#include "base/clamd_words.h"

namespace kesto {

ScanVerdict VerdictOfReply(std::string_view reply) {
    if (!reply.starts_with(kVerdictBeginning)) {
        return {VerdictKind::kUnexpectedReply, reply};
    }
    // The blank that ends "stream: " is not the one that begins " FOUND".
    std::string_view rest = reply;
    rest.remove_prefix(kVerdictBeginning.size());
    if (!rest.ends_with(kFoundEnding)) {
        return {VerdictKind::kClean, {}};
    }
    rest.remove_suffix(kFoundEnding.size());
    return {VerdictKind::kInfected, rest};
}

ScanAnswer ReadScanAnswer(std::string_view reply) {
    if (reply == kCleanReply) {
        return ScanAnswer::kClean;
    }
    return VerdictOfReply(reply).kind == VerdictKind::kInfected ? ScanAnswer::kInfected
                                                                : ScanAnswer::kNoVerdict;
}

}  // namespace kesto
