// Scan engines that misbehave on demand, on loopback, and keep what they were sent.
#pragma once

#include <winsock2.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace kesto {

// Text with the NUL behind it that ends a reply or a command.
std::string WithNul(std::string_view text);

struct Conversation;

// What an engine does with every connection: read one request, send `reply`, close.
struct EngineScript {
    std::string reply = WithNul("stream: OK");                         // sent as it stands
    std::function<std::string(const Conversation&)> answer = nullptr;  // makes the reply instead
    size_t bytes_per_send = SIZE_MAX;
    size_t close_after = SIZE_MAX;  // closes without a reply as soon as this many bytes have come in
    bool resets = false;            // whatever ends the connection is a reset
    bool reads = true;              // false: holds the connection and never reads
    bool hangs_up = true;           // false: after the reply, holds the connection until the client closes it
    bool keeps_record = true;       // false: for very many conversations
};

// One connection as the engine saw it.
struct Conversation {
    std::string raw;
    std::string command;  // without its NUL
    std::vector<uint32_t> chunk_lengths;
    std::string data;
    bool complete = false;  // the whole request came
    size_t parsed = 0;      // bytes of `raw` that the fields above hold
};

class FakeEngine {
 public:
    // Listens on 127.0.0.1 at once; port 0 takes a free one.
    explicit FakeEngine(EngineScript script = {}, uint16_t port = 0);
    // Ends every connection and waits for its threads.
    ~FakeEngine();
    FakeEngine(const FakeEngine&) = delete;
    FakeEngine& operator=(const FakeEngine&) = delete;

    uint16_t port() const { return port_; }  // 0: could not listen
    size_t bytes_received() const { return bytes_received_; }
    std::vector<Conversation> Conversations() const;  // in the order they were accepted

 private:
    void AcceptAll();
    void Converse(SOCKET client, Conversation& conversation);
    bool ReadRequest(SOCKET client, Conversation& conversation);
    void SendReply(SOCKET client, const std::string& reply);
    template <class Call>
    int WhenReady(Call call) const;

    EngineScript script_;
    SOCKET listener_ = INVALID_SOCKET;
    uint16_t port_ = 0;
    std::atomic<bool> stop_ = false;
    std::atomic<size_t> bytes_received_ = 0;
    mutable std::mutex mutex_;  // guards conversations_ and what is in them
    std::deque<Conversation> conversations_;
    std::vector<std::thread> talkers_;  // only the accepting thread touches it
    std::thread acceptor_;
};

// Listens without ever accepting, with its queue already full: connection attempts get no answer at all.
class UnansweredPort {
 public:
    UnansweredPort();
    ~UnansweredPort();
    uint16_t port() const { return port_; }

 private:
    uint16_t port_ = 0;
    std::vector<SOCKET> sockets_;
};

}  // namespace kesto
