// What an engine's reply to a scan says, and what of it a client may be shown.
#pragma once

#include <string>
#include <string_view>

namespace kesto::bridge {

// The reply as it is passed on: only verdicts keep their beginning. Anything else that has it, as an engine's
// "stream: ... ERROR", is put behind other words, so that the plug-in logs it as an unexpected reply.
std::string ReplyForClient(std::string_view reply);

}  // namespace kesto::bridge
