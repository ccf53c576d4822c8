// Blocking sockets on 127.0.0.1 for tests. Every wait ends after a limit, so that a test fails and does
// not hang.
#pragma once

#include <winsock2.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace kesto {

constexpr std::chrono::milliseconds kTestLimit{10000};

// One connection; closed with the object. Calls after the other side has gone are harmless.
class Wire {
 public:
    explicit Wire(SOCKET connected);
    Wire(Wire&& other) noexcept;
    Wire(const Wire&) = delete;
    Wire& operator=(const Wire&) = delete;
    ~Wire();

    bool Send(std::string_view bytes);
    // Exactly this many bytes, or fewer when the other side ended before.
    std::string Receive(size_t size);
    // All there is until the other side closes or resets. `ended` false: the limit passed before.
    struct Rest {
        std::string bytes;
        bool ended;
    };
    Rest ReceiveRest();
    void FinishSending();
    void Reset();  // ends the connection the hard way

 private:
    SOCKET socket_;
};

sockaddr_in LoopbackAddress(uint16_t port);
// A socket of that port, or of a free one for 0; `port` then holds it. INVALID_SOCKET if it is taken.
SOCKET BindToLoopback(uint16_t& port);
// A listener on a port of its own choice, or on one that was free a moment ago.
SOCKET ListenOnLoopback(uint16_t& port);
uint16_t FreePort();
SOCKET ConnectToLoopback(uint16_t port);  // INVALID_SOCKET when refused

// Asks until the condition holds; false when the limit passes first.
bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit = kTestLimit);

}  // namespace kesto
