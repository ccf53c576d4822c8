// How an attempt ended: reads the reply of a server, and decides what of it a client may see.
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

// The reply as it is passed on. Only verdicts keep their beginning: any other reply that has it, such as an
// engine's "stream: ... ERROR", gets other words in front, so that the plug-in logs it as an unexpected
// reply.
std::string ReplyForClient(const AttemptEnd& reply);

}  // namespace kesto::bridge
