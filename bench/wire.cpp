#include "bench/wire.h"

#include <algorithm>
#include <cstring>
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

void SendAll(SOCKET connection, const void* data, size_t count) {
    if (send(connection, static_cast<const char*>(data), static_cast<int>(count), 0) !=
        static_cast<int>(count)) {
        throw std::runtime_error("a send failed: error " + std::to_string(WSAGetLastError()));
    }
}

void SendBare(uint16_t port, const uint8_t* data, size_t size) {
    SendBareOver(ConnectTo(port), data, size);
}

void SendBareOver(SOCKET connection, const uint8_t* data, size_t size) {
    SendAll(connection, kScanCommand.data(), kScanCommand.size());
    uint32_t prefix = 0;
    for (size_t offset = 0; offset < size; offset += kChunkSize) {
        const size_t length = std::min<size_t>(kChunkSize, size - offset);
        prefix = htonl(static_cast<u_long>(length));
        SendAll(connection, &prefix, sizeof prefix);
        SendAll(connection, data + offset, length);
    }
    prefix = 0;
    SendAll(connection, &prefix, sizeof prefix);
    char reply[11] = {};
    const int count = recv(connection, reply, sizeof reply, 0);
    closesocket(connection);
    if (count != sizeof reply || memcmp(reply, kCleanReply.data(), sizeof reply) != 0) {
        throw std::runtime_error("the sink did not reply to a bare sender");
    }
}

}  // namespace kesto
