// What an engine's reply to a stream scan means.
#pragma once

#include <string_view>

namespace kesto {

enum class VerdictKind {
    kClean,
    kInfected,         // text: the virus name
    kUnexpectedReply,  // text: the reply
    kSendFailed,       // the connection broke or stalled while sending
};

struct ScanVerdict {
    VerdictKind kind;
    std::string_view text;  // a part of the reply, whose memory is the caller's
};

// `reply` is one whole reply without its NUL, or empty when none came. Any reply that begins
// "stream: " and does not end " FOUND" counts as clean.
ScanVerdict VerdictOfReply(std::string_view reply);

}  // namespace kesto
