// How an attempt ended, and what of that a client may see.
#pragma once

#include <string>
#include <string_view>

namespace kesto::bridge {

struct AttemptEnd {
    enum class Kind {
        kClean,  // text, here and in the next three: the whole reply, without its NUL
        kInfected,
        kTooLarge,   // for this server
        kNoVerdict,  // any other reply
        kUnreached,  // text, here and below: the reason
        kBroken,     // the connection broke, or the reply cannot be true
        kSilent,     // took or gave nothing for too long
    };
    Kind kind;
    std::string text;

    bool Replied() const { return kind <= Kind::kNoVerdict; }
    bool Verdict() const { return kind <= Kind::kInfected; }
};

AttemptEnd EndOfReply(std::string reply);

// What goes to a client.
struct Answer {
    enum class Kind {
        kNothing,  // for now
        kPart,     // the text, a part of the reply
        kReply,    // the text and a NUL: the end
        kNoReply,  // nothing, the text tells why: the end
    };
    Kind kind = Kind::kNothing;
    std::string text;
};

// The reply as it is passed on. Only verdicts keep their beginning: any other reply that has it, such as an
// engine's "stream: ... ERROR", gets other words in front, so that the plug-in logs it as an unexpected
// reply.
std::string ReplyForClient(const AttemptEnd& reply);

}  // namespace kesto::bridge
