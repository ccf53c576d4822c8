#include "engine/reply_verdict.h"

#include <string_view>
#include <utility>

namespace kesto {

ScanVerdict VerdictOfReply(std::string reply) {
    static constexpr std::string_view kPrefix = "stream: ";
    static constexpr std::string_view kFound = " FOUND";
    if (!reply.starts_with(kPrefix)) {
        return {VerdictKind::kUnexpectedReply, std::move(reply)};
    }
    // Behind the prefix: its own blank is no part of " FOUND".
    std::string_view rest = std::string_view(reply).substr(kPrefix.size());
    if (!rest.ends_with(kFound)) {
        return {VerdictKind::kClean, {}};
    }
    rest.remove_suffix(kFound.size());
    return {VerdictKind::kInfected, std::string(rest)};
}

}  // namespace kesto
