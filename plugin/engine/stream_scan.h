// One file streamed over one connection to an engine, and the engine's verdict.
#pragma once

#include <string_view>

#include "base/clamd_words.h"
#include "base/host_records.h"
#include "plugin/net/socket_connection.h"

namespace kesto {

inline constexpr uint32_t kCloseWaitMs = 200;

// Sends a command, which includes its NUL.
bool SendCommand(SocketConnection& connection, std::string_view command);

// Streams the host's bytes over a connected `connection` with the scan command, each byte shifted
// down by one with `encrypt`, and reads the reply into `reply`, which must be empty; the verdict's text is a
// part of it. Closes the connection. The host's memory is never written to, and its size is read again before
// every chunk.
ScanVerdict StreamScan(SocketConnection& connection, const ScanFileInput& input, bool encrypt,
                       ReceivedText& reply);

}  // namespace kesto
