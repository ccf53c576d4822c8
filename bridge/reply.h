// What an engine's reply to a scan says, and what of it a client may be shown.
#pragma once

#include <string>
#include <string_view>

namespace kesto {

enum class ScanAnswer { kClean, kInfected, kNoVerdict };

// How every verdict begins. The plug-in takes every reply that does, and does not end " FOUND", for a clean
// file.
inline constexpr std::string_view kVerdictBeginning = "stream: ";

// The reply without its NUL.
ScanAnswer ReadScanAnswer(std::string_view reply);

// The file is larger than this server takes: its size is at fault, not the server.
bool IsSizeLimit(std::string_view reply);

// The reply as it is passed on: only verdicts keep their beginning. Anything else that has it, as an engine's
// "stream: ... ERROR", is put behind other words, so that the plug-in logs it as an unexpected reply.
std::string ReplyForClient(std::string_view reply);

}  // namespace kesto
