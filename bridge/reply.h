// What an engine's reply to a scan says, and what of it a client may be shown.
#pragma once

#include <string>

namespace kesto {

enum class ScanAnswer { kClean, kInfected, kNoVerdict };

// The reply without its NUL.
ScanAnswer ReadScanAnswer(const std::string& reply);

// The reply as it is passed on. The plug-in takes every reply that begins "stream: " and does not end
// " FOUND" for a clean file, also an engine's "stream: ... ERROR". Only verdicts keep that beginning:
// anything else that has it is put behind other words, so that the plug-in logs it as an unexpected reply.
std::string ReplyForClient(const std::string& reply);

}  // namespace kesto
