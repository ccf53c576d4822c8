// Sockets on 127.0.0.1 for the tests and the benchmark. Every wait ends after a limit, so that a test fails
// and does not hang.
#pragma once

#include <winsock2.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

namespace kesto {

constexpr std::chrono::milliseconds kTestLimit{10000};

// What an engine keeps of one connection, and how it cuts it from another thread.
struct WireWatch {
    std::atomic<bool> cut = false;  // the connection's calls end at once, as if the other side had gone
    std::atomic<size_t> bytes = 0;  // received so far
    mutable std::mutex guard;
    std::string raw;  // all that was received, unless keeps_raw is off
    bool keeps_raw = true;
};

// One connection; closed with the object. Calls after the other side has gone are harmless. Everything waits
// by polling: Wine keeps the sockets of a process that is ended while it waits on them, and an engine must be
// fit to be ended at any moment.
class Wire {
 public:
    // With a `watch` a wait lasts until that is cut, without one at most kTestLimit.
    explicit Wire(SOCKET connected, WireWatch* watch = nullptr);
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
    void Hold();  // neither reads nor writes until the watch is cut
    void FinishSending();
    void Reset();  // ends the connection the hard way

 private:
    template <class Call>
    int WhenReady(Call call);
    int ReceiveSome(std::string& bytes, size_t most);

    SOCKET socket_;
    WireWatch* watch_;
};

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
