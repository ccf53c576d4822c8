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
// A listener on that port, or on a free one for 0; `port` then holds it. INVALID_SOCKET if it is taken.
SOCKET ListenOnLoopback(uint16_t& port);
uint16_t FreePort();
SOCKET ConnectToLoopback(uint16_t port);  // INVALID_SOCKET when refused

// Asks until the condition holds; false when the limit passes first.
bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit = kTestLimit);

}  // namespace kesto
