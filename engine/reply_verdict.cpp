#include "engine/reply_verdict.h"

namespace kesto {

ScanVerdict VerdictOfReply(std::string_view reply) {
    static constexpr std::string_view kPrefix = "stream: ";
    static constexpr std::string_view kFound = " FOUND";
    if (!reply.starts_with(kPrefix)) {
        return {VerdictKind::kUnexpectedReply, reply};
    }
    // Behind the prefix: its own blank is no part of " FOUND".
    std::string_view rest = reply;
    rest.remove_prefix(kPrefix.size());
    if (!rest.ends_with(kFound)) {
        return {VerdictKind::kClean, {}};
    }
    rest.remove_suffix(kFound.size());
    return {VerdictKind::kInfected, rest};
}

}  // namespace kesto
