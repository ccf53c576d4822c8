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

// The data bytes in each chunk that the plug-in sends; the last chunk may be smaller.
inline constexpr uint32_t kChunkSize = 8192;

// How long the plug-in waits for an engine that neither takes nor sends a byte, in milliseconds.
inline constexpr uint32_t kIdleLimitMs = 20000;

// How every verdict begins.
inline constexpr std::string_view kVerdictBeginning = "stream: ";
inline constexpr std::string_view kCleanReply = "stream: OK";
inline constexpr std::string_view kFoundEnding = " FOUND";

// clamd's reply to a file that is larger than it accepts. The file is the cause of it, not the server.
inline constexpr std::string_view kSizeLimitReply = "INSTREAM size limit exceeded. ERROR";

// The functions below read one whole reply without its NUL. An empty text means that no reply came.

enum class VerdictKind {
    kClean,
    kInfected,         // text: the virus name
    kUnexpectedReply,  // text: the reply
    kSendFailed,       // the connection broke or stalled while sending; never the result of reading a reply
};

struct ScanVerdict {
    VerdictKind kind;
    std::string_view text;  // a part of the reply, in the caller's memory
};

// How the plug-in reads a reply. It is lax: every reply that begins with "stream: " and does not end with
// " FOUND" counts as clean, even an error of the engine.
ScanVerdict VerdictOfReply(std::string_view reply);

enum class ScanAnswer { kClean, kInfected, kNoVerdict };

// How all other programs read a reply. It is strict: only "stream: OK" is clean. In this way they keep errors
// from the plug-in.
ScanAnswer ReadScanAnswer(std::string_view reply);

}  // namespace kesto
