// What is spoken with clamd: its commands, the sizes that both sides keep to, and the two readings of a reply
// to a scan.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kesto {

// The commands with the NUL that ends each of them.
inline constexpr std::string_view kScanCommand("zINSTREAM\0", 10);
inline constexpr std::string_view kVersionCommand("zVERSION\0", 9);
inline constexpr std::string_view kPingCommand("zPING\0", 6);
inline constexpr std::string_view kStatsCommand("zSTATS\0", 7);  // the bridge answers it, clamd does not

// Data bytes of each chunk of a stream but the last, as the plug-in cuts it.
inline constexpr uint32_t kChunkSize = 8192;

// How long the plug-in waits, in milliseconds, while the engine neither takes nor sends a byte.
inline constexpr uint32_t kIdleLimitMs = 20000;

// How every verdict begins.
inline constexpr std::string_view kVerdictBeginning = "stream: ";
inline constexpr std::string_view kCleanReply = "stream: OK";
inline constexpr std::string_view kFoundEnding = " FOUND";

// The file is larger than this clamd takes: the file is the cause, not the server.
inline constexpr std::string_view kSizeLimitReply = "INSTREAM size limit exceeded. ERROR";

// The readings below take one whole reply without its NUL, or an empty one when none came.

enum class VerdictKind {
    kClean,
    kInfected,         // text: the virus name
    kUnexpectedReply,  // text: the reply
    kSendFailed,       // the connection broke or stalled while sending; no reply reads so
};

struct ScanVerdict {
    VerdictKind kind;
    std::string_view text;  // a part of the reply, whose memory is the caller's
};

// The plug-in's reading, which is lax: any reply that begins "stream: " and does not end " FOUND" counts as
// clean, an engine's error among them.
ScanVerdict VerdictOfReply(std::string_view reply);

enum class ScanAnswer { kClean, kInfected, kNoVerdict };

// The strict reading, by which everything in front of the plug-in keeps errors from it: clean is "stream: OK"
// and nothing else.
ScanAnswer ReadScanAnswer(std::string_view reply);

}  // namespace kesto
