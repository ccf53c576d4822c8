#include "bridge/reply.h"

#include "engine/reply_verdict.h"

namespace kesto {

ScanAnswer ReadScanAnswer(const std::string& reply) {
    switch (VerdictOfReply(reply).kind) {
        case VerdictKind::Clean:
            return reply == "stream: OK" ? ScanAnswer::Clean : ScanAnswer::NoVerdict;
        case VerdictKind::Infected:
            return ScanAnswer::Infected;
        default:
            return ScanAnswer::NoVerdict;
    }
}

std::string ReplyForClient(const std::string& reply) {
    const bool taken_for_clean = VerdictOfReply(reply).kind == VerdictKind::Clean;
    const bool misleading = taken_for_clean && ReadScanAnswer(reply) != ScanAnswer::Clean;
    return misleading ? "no verdict: " + reply : reply;
}

}  // namespace kesto
