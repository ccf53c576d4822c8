// The scripted engine, which all tests use: a clamd that does what a test tells it, in the test's own process
// or in that of a stand-in (see installation.h), and keeps what it was sent.
//
//     ScriptedEngine engine(Replying("stream: Evil FOUND"));
//     ... scan with engine.Port() ...
//     EXPECT_EQ(engine.Requests().at(0).data, "as sent");
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/loopback/loopback.h"

namespace kesto {

// One connection as the engine saw it.
struct EngineRequest {
    std::string raw;      // every byte that came, even after the request
    std::string command;  // without its NUL
    std::string data;     // of the chunks
    bool whole = false;   // whether the command has come with its NUL and, for a scan, the stream to its end
};

// A connection, of a script or of a client; closed with the object. Calls after the other side has gone are
// harmless. A client waits kTestLimit at most for the next byte; a script's waits end when its engine is
// killed, which it sees by `cut`.
class Wire {
 public:
    explicit Wire(SOCKET connected, const std::atomic<bool>* cut = nullptr);
    ~Wire() { Close(); }

    bool Send(std::string_view bytes);
    std::string Receive();  // all that comes until the other side ends or the limit passes
    // For scripts: a whole request, or as much of one as came.
    EngineRequest ReceiveRequest();
    EngineRequest Request() const;  // what has come so far; any thread may ask
    // For scripts: sends a text with its NUL, then waits for the client to close.
    void ReplyAndHangUp(std::string_view text);
    // For scripts: neither reads nor writes until the end.
    void Hold() {
        WaitFor([this] { return cut_->load(); }, std::chrono::minutes(2));
    }
    void FinishSending() { shutdown(socket_, SD_SEND); }
    void Close(bool hard = false);  // hard: with a reset

 private:
    bool ReceiveSome();

    SOCKET socket_;
    const std::atomic<bool>* cut_;
    mutable std::mutex guard_;  // of what has come
    std::string raw_;
};

// What an engine does with a connection, which is closed when it returns. Runs for each connection in a
// thread of its own, so that what it shares with the test must be atomic.
using EngineScript = std::function<void(Wire&)>;

enum class Then { kHangsUp, kHolds };
// Replies to each request with exactly these bytes.
EngineScript ReplyingBytes(std::string bytes, Then then = Then::kHangsUp);
EngineScript Replying(std::string_view text);  // the same with a NUL behind it
// As clamd does: PONG, its version, and to a scan FOUND when the data is the EICAR string or holds VIRUS,
// "what?" when it holds GARBLE, else OK.
struct ClamdTraits {
    bool shifted = false;  // undoes the shift of the plug-in's encrypt setting first
    std::string version = "ClamAV 1.4.3/27000/Mon Jan  1 00:00:00 2024";
};
EngineScript Realistic(ClamdTraits traits = {});
std::string VersionOfDaysAgo(int days);  // with signatures so old

class ScriptedEngine {
 public:
    // Listens on 127.0.0.1 at once; port 0 takes a free one. Throws when the port is taken.
    explicit ScriptedEngine(EngineScript script = Replying("stream: OK"), uint16_t port = 0);
    ~ScriptedEngine() { Kill(); }

    uint16_t Port() const { return port_; }
    std::string Address() const { return "127.0.0.1:" + std::to_string(port_); }

    void Play(EngineScript script);  // for the connections from now on
    void Kill();                     // refuses, and resets what is under way

    std::vector<EngineRequest> Requests() const;  // of all connections so far, as accepted

 private:
    struct Connection : Wire {
        using Wire::Wire;
        std::jthread thread;
    };
    void Accept(SOCKET listener);

    mutable std::mutex guard_;  // of the script and of the list, not of what is in it
    EngineScript script_;
    std::list<Connection> connections_;
    uint16_t port_;
    std::atomic<bool> killed_ = false;
    std::jthread accepting_;
};

// What clients say.
std::string WithNul(std::string_view text);
std::string ShiftedDown(std::string data, int by = 1);  // 1: as the plug-in's encrypt setting does
// All the bytes of a scan as the plug-in sends it.
std::string ScanRequestOf(const std::string& data, bool shifted = true);
// Sends bytes on a new connection and returns all that comes back.
std::string Ask(uint16_t port, const std::string& bytes);

}  // namespace kesto
