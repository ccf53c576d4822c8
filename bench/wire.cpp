#include "bench/wire.h"

#include <algorithm>
#include <asio/buffer.hpp>
#include <asio/io_context.hpp>
#include <asio/read_until.hpp>
#include <asio/write.hpp>
#include <stdexcept>
#include <string>

#include "base/clamd_words.h"
#include "tests/support/scripted_engine.h"
#include "tests/support/wait_for.h"

namespace kesto {
namespace {

asio::io_context g_sockets;

}  // namespace

tcp::socket ConnectTo(uint16_t port) {
    tcp::socket connection(g_sockets);
    connection.connect(Loopback(port));
    return connection;
}

void WaitForListener(uint16_t port) {
    const auto listens = [port] {
        asio::error_code refused;
        tcp::socket(g_sockets).connect(Loopback(port), refused);
        return !refused;
    };
    if (!WaitFor(listens)) {
        throw std::runtime_error("nothing listens on port " + std::to_string(port));
    }
}

void SendAll(tcp::socket& connection, std::string_view bytes) {
    asio::write(connection, asio::buffer(bytes));
}

void SendLength(tcp::socket& connection, size_t length) {
    const uint32_t prefix = htonl(static_cast<u_long>(length));
    SendAll(connection, {reinterpret_cast<const char*>(&prefix), sizeof prefix});
}

void SendBare(uint16_t port, std::string_view data) {
    tcp::socket connection = ConnectTo(port);
    SendAll(connection, kScanCommand);
    for (; !data.empty(); data.remove_prefix(std::min<size_t>(kChunkSize, data.size()))) {
        const std::string_view chunk = data.substr(0, kChunkSize);
        SendLength(connection, chunk.size());
        SendAll(connection, chunk);
    }
    SendLength(connection, 0);
    // On a busy machine the bridge sends a verdict's beginning first.
    std::string reply;
    asio::read_until(connection, asio::dynamic_buffer(reply), '\0');
    if (reply != std::string(kCleanReply) + '\0') {
        throw std::runtime_error("the sink did not reply to a bare sender");
    }
}

}  // namespace kesto
