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

void SetNonBlocking(SOCKET socket) {
    u_long on = 1;
    ioctlsocket(socket, FIONBIO, &on);
}

}  // namespace

Wire::Wire(SOCKET connected, WireWatch* watch) : socket_(connected), watch_(watch) {
    SetNonBlocking(socket_);
    const BOOL at_once = TRUE;  // pieces go out as pieces
    setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&at_once), sizeof at_once);
}

Wire::Wire(Wire&& other) noexcept
    : socket_(std::exchange(other.socket_, INVALID_SOCKET)), watch_(other.watch_) {}

Wire::~Wire() {
    if (socket_ != INVALID_SOCKET) {
        closesocket(socket_);
    }
}

// The result of `call` once it no longer would block; -1 on failure, -2 when cut or past the limit.
template <class Call>
int Wire::WhenReady(Call call) {
    const auto until = std::chrono::steady_clock::now() + kTestLimit;
    while (watch_ != nullptr ? !watch_->cut : std::chrono::steady_clock::now() < until) {
        const int result = call();
        if (result >= 0 || WSAGetLastError() != WSAEWOULDBLOCK) {
            return result;
        }
        Sleep(1);
    }
    return -2;
}

bool Wire::Send(std::string_view bytes) {
    while (!bytes.empty()) {
        const int sent = WhenReady([&] {
            return send(socket_, bytes.data(), static_cast<int>(std::min<size_t>(bytes.size(), 1 << 20)), 0);
        });
        if (sent <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
}

// Not one byte more than wanted, so that a script that ends early ends at the very byte it means.
int Wire::ReceiveSome(std::string& bytes, size_t most) {
    char piece[65536];
    const int got =
        WhenReady([&] { return recv(socket_, piece, static_cast<int>(std::min(most, sizeof piece)), 0); });
    if (got > 0) {
        bytes.append(piece, static_cast<size_t>(got));
        if (watch_ != nullptr) {
            watch_->bytes += static_cast<size_t>(got);
            const std::lock_guard lock(watch_->guard);
            if (watch_->keeps_raw) {
                watch_->raw.append(piece, static_cast<size_t>(got));
            }
        }
    }
    return got;
}

std::string Wire::Receive(size_t size) {
    std::string bytes;
    while (bytes.size() < size && ReceiveSome(bytes, size - bytes.size()) > 0) {
    }
    return bytes;
}

Wire::Rest Wire::ReceiveRest() {
    Rest rest = {"", false};
    int got = 0;
    while ((got = ReceiveSome(rest.bytes, SIZE_MAX)) > 0) {
    }
    rest.ended = got != -2;
    return rest;
}

void Wire::Hold() {
    WhenReady([] {
        WSASetLastError(WSAEWOULDBLOCK);
        return -1;
    });
}

void Wire::FinishSending() {
    shutdown(socket_, SD_SEND);
}

void Wire::Reset() {
    const linger hard = {1, 0};
    setsockopt(socket_, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&hard), sizeof hard);
    closesocket(std::exchange(socket_, INVALID_SOCKET));
}

sockaddr_in LoopbackAddress(uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
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

UnansweredPort::UnansweredPort() {
    sockets_[0] = BindToLoopback(port_);
    listen(sockets_[0], 1);
    const sockaddr_in address = LoopbackAddress(port_);
    for (SOCKET& queued : sockets_) {
        if (&queued != sockets_) {
            queued = OwnSocket();
            SetNonBlocking(queued);
            connect(queued, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        }
    }
}

UnansweredPort::~UnansweredPort() {
    for (const SOCKET each : sockets_) {
        closesocket(each);
    }
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
