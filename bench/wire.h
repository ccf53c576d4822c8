// The least of a scan: one connection, the bytes, the reply.
#pragma once

#include <asio/ip/tcp.hpp>
#include <cstdint>
#include <string_view>

namespace kesto {

using asio::ip::tcp;

// A connection to the loopback; throws where it is refused.
tcp::socket ConnectTo(uint16_t port);

// Waits until something listens; throws after ten seconds.
void WaitForListener(uint16_t port);

// Sends all of it, up to 64 KB with one blocking send, or throws.
void SendAll(tcp::socket& connection, std::string_view bytes);
// A chunk's length, as it stands before the chunk.
void SendLength(tcp::socket& connection, size_t length);

// What SCANFILE puts on the wire, in the same sends, and nothing else: blocking sends straight from
// `data`, then a wait for the reply. Throws where that is not "stream: OK".
void SendBare(uint16_t port, std::string_view data);

}  // namespace kesto
