#include "bridge/reply.h"

namespace kesto {

namespace {

constexpr std::string_view kPrefix = "stream: ";
constexpr std::string_view kFound = " FOUND";

}  // namespace

ScanAnswer ReadScanAnswer(std::string_view reply) {
    if (reply == "stream: OK") {
        return ScanAnswer::kClean;
    }
    // The blank of " FOUND" is not the prefix's own: "stream: FOUND" names nothing.
    const bool found = reply.starts_with(kPrefix) && reply.substr(kPrefix.size()).ends_with(kFound);
    return found ? ScanAnswer::kInfected : ScanAnswer::kNoVerdict;
}

std::string ReplyForClient(std::string_view reply) {
    const bool misleading = ReadScanAnswer(reply) == ScanAnswer::kNoVerdict && reply.starts_with(kPrefix);
    return (misleading ? "no verdict: " : "") + std::string(reply);
}

}  // namespace kesto
