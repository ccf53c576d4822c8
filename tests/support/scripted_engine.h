// The one scripted engine of all tests: a clamd that does what a test tells it, in the test's own process or
// in an engine program's (see installation.h), and keeps what it was sent.
//
//     ScriptedEngine engine(Replying("stream: Evil FOUND"));
//     ... scan with engine.Port() ...
//     EXPECT_EQ(engine.Requests().at(0).data, "as sent");
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/loopback/loopback.h"

namespace kesto {

// What an engine does with a connection, which is closed when it returns. Runs for each connection in a
// thread of its own, so that what it shares with the test must be atomic. Its waits end with the engine.
using EngineScript = std::function<void(Wire&)>;

// Scripts. "Request" is a whole one: a command with its NUL and, for zINSTREAM, the stream to its zero
// length.
EngineScript Replying(std::string text);  // to each request with this and a NUL
// To each request with exactly these bytes, in pieces of this size; then it hangs up, or resets.
EngineScript ReplyingBytes(std::string bytes, size_t piece = SIZE_MAX, bool resets = false);
EngineScript DyingAfter(size_t bytes);  // closes as soon as it has received so many
EngineScript ResettingAfter(size_t bytes);
EngineScript Silent(std::string beginning = "");  // reads everything, sends that after the request, no more
EngineScript Deaf();                              // never reads
EngineScript Endless(std::string beginning);      // the beginning and then x after x, without a NUL
// As clamd does: PONG, its version, and to a scan FOUND when the data is the EICAR string or holds VIRUS,
// "what?" when it holds GARBLE, else OK.
struct ClamdTraits {
    bool shifted = false;  // undoes the shift of the plug-in's encrypt setting first
    std::string version = "ClamAV 1.4.3/27000/Mon Jan  1 00:00:00 2024";
    bool signatures = true;  // false: everything is clean
};
EngineScript Realistic(ClamdTraits traits = {});
// For the engine program: "reply TEXT", "die BYTES", "reset BYTES", "silent", "deaf", "endless",
// "realistic", "shifted" (realistic, and undoes the shift).
EngineScript ScriptNamed(const std::string& words);

// Parts of scripts.
std::string ReceiveCommand(Wire& wire);                  // without its NUL
std::optional<std::string> ReceiveStream(Wire& wire);    // its data; none when it ended before its end
std::string ReceiveRequest(Wire& wire);                  // command and stream; returns the command
void ReplyAndHangUp(Wire& wire, std::string_view text);  // with a NUL; waits for the client to close

// One connection as the engine saw it.
struct EngineRequest {
    std::string raw;                      // every byte that came, also behind the request
    std::string command;                  // without its NUL
    std::vector<uint32_t> chunk_lengths;  // without the zero at the end
    std::string data;                     // of the chunks, whole ones only
    bool whole = false;
};

class ScriptedEngine {
 public:
    // Listens on 127.0.0.1 at once; port 0 takes a free one. Throws when the port is taken.
    explicit ScriptedEngine(EngineScript script = Replying("stream: OK"), uint16_t port = 0,
                            bool keeps_requests = true);
    ~ScriptedEngine();  // as Kill does
    ScriptedEngine(const ScriptedEngine&) = delete;
    ScriptedEngine& operator=(const ScriptedEngine&) = delete;

    uint16_t Port() const { return port_; }
    std::string Address() const { return "127.0.0.1:" + std::to_string(port_); }

    void Play(EngineScript script);  // for the connections from now on
    void Kill();                     // refuses, and resets what is under way
    void Revive();                   // listens on the same port again

    unsigned Accepted() const { return accepted_; }
    unsigned Ended() const { return ended_; }     // connections whose script has returned
    size_t BytesReceived() const;                 // over all connections
    std::vector<EngineRequest> Requests() const;  // in the order in which they were accepted

 private:
    struct Connection {
        WireWatch watch;
        std::thread thread;
    };
    void Accept(SOCKET listener);

    mutable std::mutex guard_;  // of the script and of the list, not of what is in it
    EngineScript script_;
    std::list<Connection> connections_;
    uint16_t port_;
    bool keeps_requests_;
    std::atomic<bool> killed_ = true;
    std::atomic<unsigned> accepted_ = 0;
    std::atomic<unsigned> ended_ = 0;
    std::thread accepting_;
};

// What clients say.
std::string WithNul(std::string_view text);
std::string ShiftedDown(std::string data);  // as the plug-in's encrypt setting does
// The stream of a scan: the data in chunks, each with its length, and the zero length. Nothing is shifted.
std::string ChunkStreamOf(std::string_view data, size_t chunk_size = 8192);
// All the bytes of a scan as the plug-in sends it.
std::string ScanRequestOf(const std::string& data, bool shifted = true);
// Sends bytes on a new connection and returns all that comes back until the end; "(no end)" is added when
// the connection stays open past the limit.
std::string Ask(uint16_t port, const std::string& bytes);

}  // namespace kesto
