// One file streamed over one connection to an engine, and the engine's verdict.
#pragma once

#include <string_view>

#include "base/host_records.h"
#include "engine/reply_verdict.h"
#include "net/socket_connection.h"

namespace kesto {

// How long an engine may accept or send nothing, in milliseconds.
inline constexpr uint32_t kIdleLimitMs = 20000;
inline constexpr uint32_t kCloseWaitMs = 200;

// Sends `command` and its NUL.
bool SendCommand(SocketConnection& connection, std::string_view command);

// Streams the host's bytes over a connected `connection` with the "zINSTREAM" command, each byte shifted
// down by one with `encrypt`, and reads the reply into `reply`, an empty text that the verdict's text is a
// part of. The connection is closed upon return. The host's memory is only read, and its size again before
// every chunk.
ScanVerdict StreamScan(SocketConnection& connection, const ScanFileInput& input, bool encrypt,
                       ReceivedText& reply);

}  // namespace kesto
