#include "tests/loopback/loopback.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace kesto {
namespace {

[[maybe_unused]] const bool g_sockets_started = [] {
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data) == 0;
}();

// A child process that inherited a socket would keep it open after we have closed it.
SOCKET OwnSocket() {
    const SOCKET made = socket(AF_INET, SOCK_STREAM, 0);
    SetHandleInformation(reinterpret_cast<HANDLE>(made), HANDLE_FLAG_INHERIT, 0);
    return made;
}

}  // namespace

sockaddr_in LoopbackAddress(uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

Wire::Wire(SOCKET connected) : socket_(connected) {
    const DWORD limit = static_cast<DWORD>(kTestLimit.count());
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&limit), sizeof limit);
    setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<const char*>(&limit), sizeof limit);
}

Wire::Wire(Wire&& other) noexcept : socket_(std::exchange(other.socket_, INVALID_SOCKET)) {}

Wire::~Wire() {
    if (socket_ != INVALID_SOCKET) {
        closesocket(socket_);
    }
}

bool Wire::Send(std::string_view bytes) {
    while (!bytes.empty()) {
        const int sent = send(socket_, bytes.data(), static_cast<int>(bytes.size()), 0);
        if (sent <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
}

std::string Wire::Receive(size_t size) {
    std::string bytes(size, '\0');
    size_t got = 0;
    while (got < size) {
        const int n =
            recv(socket_, bytes.data() + got, static_cast<int>(std::min<size_t>(size - got, 1 << 20)), 0);
        if (n <= 0) {
            break;
        }
        got += static_cast<size_t>(n);
    }
    bytes.resize(got);
    return bytes;
}

Wire::Rest Wire::ReceiveRest() {
    Rest rest = {"", false};
    char piece[4096];
    int n = 0;
    while ((n = recv(socket_, piece, sizeof piece, 0)) > 0) {
        rest.bytes.append(piece, static_cast<size_t>(n));
    }
    rest.ended = n == 0 || WSAGetLastError() != WSAETIMEDOUT;
    return rest;
}

void Wire::FinishSending() {
    shutdown(socket_, SD_SEND);
}

void Wire::Reset() {
    const linger hard = {1, 0};
    setsockopt(socket_, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&hard), sizeof hard);
    closesocket(std::exchange(socket_, INVALID_SOCKET));
}

SOCKET BindToLoopback(uint16_t& port) {
    const SOCKET bound = OwnSocket();
    sockaddr_in address = LoopbackAddress(port);
    int size = sizeof address;
    if (bind(bound, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        getsockname(bound, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        closesocket(bound);
        return INVALID_SOCKET;
    }
    port = ntohs(address.sin_port);
    return bound;
}

SOCKET ListenOnLoopback(uint16_t& port) {
    const SOCKET listener = BindToLoopback(port);
    listen(listener, SOMAXCONN);
    return listener;
}

uint16_t FreePort() {
    uint16_t port = 0;
    closesocket(ListenOnLoopback(port));
    return port;
}

SOCKET ConnectToLoopback(uint16_t port) {
    const SOCKET client = OwnSocket();
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
