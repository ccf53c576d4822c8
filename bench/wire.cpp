#include "bench/wire.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "base/clamd_words.h"
#include "tests/loopback/loopback.h"

namespace kesto {

SOCKET ConnectTo(uint16_t port) {
    const SOCKET connection = ConnectToLoopback(port);
    if (connection == INVALID_SOCKET) {
        throw std::runtime_error("port " + std::to_string(port) + " does not accept");
    }
    return connection;
}

void WaitForListener(uint16_t port) {
    const auto listens = [port] {
        const SOCKET connection = ConnectToLoopback(port);
        return connection != INVALID_SOCKET && closesocket(connection) == 0;
    };
    if (!WaitFor(listens)) {
        throw std::runtime_error("nothing listens on port " + std::to_string(port));
    }
}

void SendAll(SOCKET connection, std::string_view bytes) {
    const int count = static_cast<int>(bytes.size());
    if (send(connection, bytes.data(), count, 0) != count) {
        throw std::runtime_error("a send failed: error " + std::to_string(WSAGetLastError()));
    }
}

void SendLength(SOCKET connection, size_t length) {
    const uint32_t prefix = htonl(static_cast<u_long>(length));
    SendAll(connection, {reinterpret_cast<const char*>(&prefix), sizeof prefix});
}

void SendBare(uint16_t port, std::string_view data) {
    const SOCKET connection = ConnectTo(port);
    SendAll(connection, kScanCommand);
    for (; !data.empty(); data.remove_prefix(std::min<size_t>(kChunkSize, data.size()))) {
        const std::string_view chunk = data.substr(0, kChunkSize);
        SendLength(connection, chunk.size());
        SendAll(connection, chunk);
    }
    SendLength(connection, 0);
    // On a busy machine the bridge sends a verdict's beginning first.
    std::string reply;
    char part[20];
    for (int count = 1; count > 0 && !reply.ends_with('\0'); reply.append(part, static_cast<size_t>(count))) {
        count = std::max(recv(connection, part, sizeof part, 0), 0);
    }
    closesocket(connection);
    if (reply != std::string(kCleanReply) + '\0') {
        throw std::runtime_error("the sink did not reply to a bare sender");
    }
}

}  // namespace kesto
