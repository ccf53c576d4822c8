#include "bridge/reply.h"

#include "engine/reply_verdict.h"

namespace kesto {

ScanAnswer ReadScanAnswer(const std::string& reply) {
    switch (VerdictOfReply(reply).kind) {
        case VerdictKind::kClean:
            return reply == "stream: OK" ? ScanAnswer::kClean : ScanAnswer::kNoVerdict;
        case VerdictKind::kInfected:
            return ScanAnswer::kInfected;
        default:
            return ScanAnswer::kNoVerdict;
    }
}

std::string ReplyForClient(const std::string& reply) {
    const bool taken_for_clean = VerdictOfReply(reply).kind == VerdictKind::kClean;
    const bool misleading = taken_for_clean && ReadScanAnswer(reply) != ScanAnswer::kClean;
    return misleading ? "no verdict: " + reply : reply;
}

}  // namespace kesto
