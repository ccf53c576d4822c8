#include <cstdint>
#include <string>

#include "engine/reply_verdict.h"

// A reply is infected, clean or unexpected, and its parts put together again give the reply.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string reply(data, data + size);
    const kesto::ScanVerdict verdict = kesto::VerdictOfReply(reply);
    switch (verdict.kind) {
        case kesto::VerdictKind::kClean:
            if (!reply.starts_with("stream: ") || reply.substr(8).ends_with(" FOUND"))
                __builtin_trap();
            break;
        case kesto::VerdictKind::kInfected:
            if (reply != "stream: " + std::string(verdict.text) + " FOUND")
                __builtin_trap();
            break;
        case kesto::VerdictKind::kUnexpectedReply:
            if (reply != verdict.text || reply.starts_with("stream: "))
                __builtin_trap();
            break;
        case kesto::VerdictKind::kSendFailed:
            __builtin_trap();
    }
    return 0;
}
