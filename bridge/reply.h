// What an engine's reply to a scan says, and what of it a client may be shown.
#pragma once

#include <string>
#include <string_view>

namespace kesto {

enum class ScanAnswer { kClean, kInfected, kNoVerdict };

// The reply without its NUL.
ScanAnswer ReadScanAnswer(std::string_view reply);

// The reply as it is passed on. Clients take every reply that begins "stream: " and does not end " FOUND"
// for a clean file, also an engine's "stream: ... ERROR". Only verdicts keep that beginning: anything else
// that has it is put behind other words, so that the client sees an unexpected reply and can log it.
std::string ReplyForClient(std::string_view reply);

}  // namespace kesto
