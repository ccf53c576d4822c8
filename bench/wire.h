// The least of a scan: one connection, the bytes, the reply.
#pragma once

#include <winsock2.h>

#include <cstddef>
#include <cstdint>

namespace kesto {

// A connection to the loopback; throws where it is refused.
SOCKET ConnectTo(uint16_t port);

// Waits until something listens; throws after ten seconds.
void WaitForListener(uint16_t port);

// Sends all of it with one blocking send or throws.
void SendAll(SOCKET connection, const void* data, size_t count);

// What SCANFILE puts on the wire, in the same sends, and nothing else: blocking sends straight from
// `data`, then one wait for the reply. Throws where that is not "stream: OK".
void SendBare(uint16_t port, const uint8_t* data, size_t size);

// The same over a connection, which is closed.
void SendBareOver(SOCKET connection, const uint8_t* data, size_t size);

}  // namespace kesto
