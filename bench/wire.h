// The least of a scan: one connection, the bytes, the reply.
#pragma once

#include <winsock2.h>

#include <cstdint>
#include <string_view>

namespace kesto {

// A connection to the loopback; throws where it is refused.
SOCKET ConnectTo(uint16_t port);

// Waits until something listens; throws after ten seconds.
void WaitForListener(uint16_t port);

// Sends all of it with one blocking send or throws.
void SendAll(SOCKET connection, std::string_view bytes);
// A chunk's length, as it stands before the chunk.
void SendLength(SOCKET connection, size_t length);

// What SCANFILE puts on the wire, in the same sends, and nothing else: blocking sends straight from
// `data`, then a wait for the reply. Throws where that is not "stream: OK".
void SendBare(uint16_t port, std::string_view data);

}  // namespace kesto
