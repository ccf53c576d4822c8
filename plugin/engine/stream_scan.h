// One file streamed over one connection to an engine, and the engine's verdict.
#pragma once

#include <string_view>

#include "base/clamd_words.h"
#include "base/host_records.h"
#include "plugin/net/socket_connection.h"

namespace kesto {

inline constexpr uint32_t kCloseWaitMs = 200;

// Sends a command, which holds its NUL.
bool SendCommand(SocketConnection& connection, std::string_view command);

// Streams the host's bytes over a connected `connection` with the scan command, each byte shifted
// down by one with `encrypt`, and reads the reply into `reply`, an empty text that the verdict's text is a
// part of. The connection is closed upon return. The host's memory is only read, and its size again before
// every chunk.
ScanVerdict StreamScan(SocketConnection& connection, const ScanFileInput& input, bool encrypt,
                       ReceivedText& reply);

}  // namespace kesto
