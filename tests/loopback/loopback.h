// Sockets on 127.0.0.1 for the tests and the benchmark. Every wait ends after a limit, so that a test fails
// and does not hang.
#pragma once

#include <winsock2.h>

#include <chrono>
#include <cstdint>
#include <functional>

namespace kesto {

constexpr std::chrono::milliseconds kTestLimit{10000};

sockaddr_in LoopbackAddress(uint16_t port);
// A socket of that port, or of a free one for 0; `port` then holds it. INVALID_SOCKET if it is taken.
SOCKET BindToLoopback(uint16_t& port);
// A listener on a port of its own choice, or on one that was free a moment ago.
SOCKET ListenOnLoopback(uint16_t& port);
uint16_t FreePort();
SOCKET ConnectToLoopback(uint16_t port);  // INVALID_SOCKET when refused

// Listens without ever accepting, with its queue already full: connection attempts get no answer at all.
class UnansweredPort {
 public:
    UnansweredPort();
    ~UnansweredPort();
    uint16_t Port() const { return port_; }

 private:
    uint16_t port_ = 0;
    SOCKET sockets_[9];
};

// Asks until the condition holds; false when the limit passes first.
bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit = kTestLimit);

}  // namespace kesto
