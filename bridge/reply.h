// How an exchange with an engine ended: the one place where its reply is read, and what of it a client may be
// shown.
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
        kBroken,     // lost, or not to be believed
        kSilent,     // took or gave nothing for too long
    };
    Kind kind;
    std::string text;

    bool Replied() const { return kind <= Kind::kNoVerdict; }
    bool Verdict() const { return kind <= Kind::kInfected; }
};

AttemptEnd EndOfReply(std::string reply);

// The reply as it is passed on: only verdicts keep their beginning. Anything else that has it, as an engine's
// "stream: ... ERROR", is put behind other words, so that the plug-in logs it as an unexpected reply.
std::string ReplyForClient(const AttemptEnd& reply);

}  // namespace kesto::bridge
