#include "bench/wire.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

namespace kesto {

void StartSockets() {
    WSADATA data;
    if (WSAStartup(MAKEWORD(2, 2), &data) != 0) {
        throw std::runtime_error("the socket layer does not start");
    }
}

static sockaddr_in Loopback(uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

SOCKET Listen(uint16_t& port) {
    SOCKET listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in address = Loopback(port);
    int size = sizeof address;
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
        listen(listener, SOMAXCONN) != 0) {
        closesocket(listener);
        return INVALID_SOCKET;
    }
    port = ntohs(address.sin_port);
    return listener;
}

uint16_t FreePort() {
    uint16_t port = 0;
    closesocket(Listen(port));
    return port;
}

SOCKET ConnectTo(uint16_t port) {
    SOCKET connection = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    const sockaddr_in address = Loopback(port);
    if (connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int error = WSAGetLastError();
        closesocket(connection);
        throw std::runtime_error("port " + std::to_string(port) + " does not accept: error " +
                                 std::to_string(error));
    }
    return connection;
}

void WaitForListener(uint16_t port) {
    const ULONGLONG end = GetTickCount64() + 10000;
    for (;;) {
        try {
            closesocket(ConnectTo(port));
            return;
        } catch (const std::runtime_error&) {
            if (GetTickCount64() > end) {
                throw;
            }
        }
        Sleep(20);
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
    constexpr size_t kChunkSize = 8192;
    SendAll(connection, "zINSTREAM", 10);
    uint32_t prefix = 0;
    for (size_t offset = 0; offset < size; offset += kChunkSize) {
        const size_t length = std::min(kChunkSize, size - offset);
        prefix = htonl(static_cast<u_long>(length));
        SendAll(connection, &prefix, sizeof prefix);
        SendAll(connection, data + offset, length);
    }
    prefix = 0;
    SendAll(connection, &prefix, sizeof prefix);
    char reply[11] = {};
    const int count = recv(connection, reply, sizeof reply, 0);
    closesocket(connection);
    if (count != sizeof reply || memcmp(reply, "stream: OK", sizeof reply) != 0) {
        throw std::runtime_error("the sink did not reply to a bare sender");
    }
}

}  // namespace kesto
