#include "tests/loopback/loopback.h"

#include <thread>

namespace kesto {
namespace {

[[maybe_unused]] const bool g_sockets_started = [] {
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data) == 0;
}();

}  // namespace

sockaddr_in LoopbackAddress(uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

SOCKET ListenOnLoopback(uint16_t& port) {
    const SOCKET bound = socket(AF_INET, SOCK_STREAM, 0);
    // A child process that inherited it would keep it open after we have closed it.
    SetHandleInformation(reinterpret_cast<HANDLE>(bound), HANDLE_FLAG_INHERIT, 0);
    sockaddr_in address = LoopbackAddress(port);
    int size = sizeof address;
    if (bind(bound, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        getsockname(bound, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        closesocket(bound);
        return INVALID_SOCKET;
    }
    listen(bound, SOMAXCONN);
    port = ntohs(address.sin_port);
    return bound;
}

uint16_t FreePort() {
    uint16_t port = 0;
    closesocket(ListenOnLoopback(port));
    return port;
}

SOCKET ConnectToLoopback(uint16_t port) {
    const SOCKET client = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = LoopbackAddress(port);
    if (connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        return client;
    }
    closesocket(client);
    return INVALID_SOCKET;
}

bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > until) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace kesto
