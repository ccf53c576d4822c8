// A clamd that does what a test tells it, one thread a connection.
#pragma once

#include <atomic>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "tests/loopback/loopback.h"

namespace kesto {

// Runs for every connection; the connection is closed when it returns.
using ClamdScript = std::function<void(Wire&)>;

class FakeClamd {
 public:
    explicit FakeClamd(ClamdScript script);
    ~FakeClamd();

    uint16_t Port() const { return port_; }
    std::string Address() const { return "127.0.0.1:" + std::to_string(port_); }
    unsigned Accepted() const { return accepted_; }  // connections so far
    unsigned Ended() const { return ended_; }        // those whose script has returned

    void Kill();    // refuses, and resets what is under way
    void Revive();  // listens on the same port again

 private:
    struct Connection {
        Wire wire;
        std::thread thread;
        std::atomic<bool> over = false;
    };
    void Accept(SOCKET listener);

    ClamdScript script_;
    uint16_t port_ = 0;
    SOCKET listener_ = INVALID_SOCKET;
    std::atomic<unsigned> accepted_ = 0;
    std::atomic<unsigned> ended_ = 0;
    std::mutex guard_;
    std::list<Connection> connections_;
    std::thread accepting_;
};

// What a whole scan request carries: the stream's bytes as sent, and the data in its chunks. Nothing when
// the connection ended before the stream did.
struct ScanRequestSeen {
    std::string stream;
    std::string data;
};
std::optional<ScanRequestSeen> ReceiveScanRequest(Wire& wire);

// Receives the command word; its NUL is not part of the result.
std::string ReceiveCommand(Wire& wire);

// Replies as a real one: PONG, a version, and to a scan FOUND when the data holds "evil".
ClamdScript RealisticClamd();

// The same for every connection: receives a scan and replies this text and a NUL.
ClamdScript Replying(std::string reply);

}  // namespace kesto
