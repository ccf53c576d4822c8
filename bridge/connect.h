// How the bridge connects to a server.
#pragma once

#include <asio/buffer.hpp>
#include <asio/error_code.hpp>
#include <asio/ip/tcp.hpp>
#include <functional>

namespace kesto::bridge {

// Opens the socket and connects it; `first`, which must stay until then, goes out with that. `done` is called
// later, with the bytes that were sent.
void Connect(asio::ip::tcp::socket& socket, const asio::ip::tcp::endpoint& server, asio::const_buffer first,
             std::function<void(const asio::error_code& error, size_t sent)> done);

}  // namespace kesto::bridge
