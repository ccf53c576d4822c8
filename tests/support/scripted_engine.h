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
#include <utility>
#include <vector>

#include "tests/loopback/loopback.h"

namespace kesto {

// One connection as the engine saw it.
struct EngineRequest {
    std::string raw;      // every byte that came, even after the request
    std::string command;  // without its NUL
    std::string data;     // of the chunks, whole ones only
    bool whole = false;   // whether the command has come with its NUL and, for a scan, the stream to its end
    size_t parsed = 0;    // bytes of `raw` that the fields above hold
};

// A connection, of a script or of a client; closed with the object. Calls after the other side has gone are
// harmless. Everything waits by polling, since Wine keeps the sockets of a process that is ended while it
// waits on them, and an engine may be ended at any moment. A client waits kTestLimit at most; a script's
// waits end with its engine.
class Wire {
 public:
    struct Script {  // what a script's connection shares with its engine
        explicit Script(const std::atomic<bool>& engine_killed) : cut(engine_killed) {}
        const std::atomic<bool>& cut;
        mutable std::mutex guard;
        EngineRequest request;
    };
    explicit Wire(SOCKET connected, Script* script = nullptr);
    ~Wire() { closesocket(socket_); }

    bool Send(std::string_view bytes);
    // Exactly this many bytes, or fewer when the other side ended or the limit passed before.
    std::string Receive(size_t size = SIZE_MAX);
    bool Ended() const { return ended_; }  // whether Receive has seen the other side end
    // For scripts: a whole request, or as much of one as came.
    const EngineRequest& ReceiveRequest();
    // For scripts: sends a text with its NUL, then waits for the client to close.
    void ReplyAndHangUp(std::string_view text);
    void Hold();  // neither reads nor writes until the end
    void FinishSending() { shutdown(socket_, SD_SEND); }
    void Reset();  // ends the connection the hard way

 private:
    template <class Call>
    int WhenReady(Call call);
    bool ReceiveSome(std::string& bytes, size_t most);

    SOCKET socket_;
    Script* script_ = nullptr;
    bool ended_ = false;
};

// What an engine does with a connection, which is closed when it returns. Runs for each connection in a
// thread of its own, so that what it shares with the test must be atomic.
using EngineScript = std::function<void(Wire&)>;

enum class Then { kHangsUp, kResets, kHolds };
// Replies to each request with exactly these bytes, in pieces of this size.
EngineScript ReplyingBytes(std::string bytes, Then then = Then::kHangsUp, size_t piece = SIZE_MAX);
EngineScript Replying(std::string_view text);  // the same with a NUL behind it
// As soon as it has received so many bytes.
EngineScript DyingAfter(size_t bytes, bool resets = false);
inline const EngineScript kDeaf = [](Wire& wire) { wire.Hold(); };  // never reads
EngineScript Endless(std::string beginning);  // the beginning and then x after x, without a NUL
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

    unsigned Accepted() const { return accepted_; }  // connections so far
    std::vector<EngineRequest> Requests() const;     // as accepted

 private:
    struct Connection : Wire::Script {
        using Script::Script;
        std::jthread thread;
    };
    void Accept(SOCKET listener);

    mutable std::mutex guard_;  // of the script and of the list, not of what is in it
    EngineScript script_;
    std::list<Connection> connections_;
    uint16_t port_;
    std::atomic<bool> killed_ = false;
    std::atomic<unsigned> accepted_ = 0;
    std::jthread accepting_;
};

// What clients say.
std::string WithNul(std::string_view text);
std::string ShiftedDown(std::string data, int by = 1);  // 1: as the plug-in's encrypt setting does
// The stream of a scan: the data in chunks, each with its length, and the zero length. Nothing is shifted.
std::string ChunkStreamOf(std::string_view data, size_t chunk_size = 8192);
// All the bytes of a scan as the plug-in sends it.
std::string ScanRequestOf(const std::string& data, bool shifted = true);
// Sends bytes on a new connection and returns all that comes back until the end; "(no end)" is added when
// the connection stays open past the limit.
std::string Ask(uint16_t port, const std::string& bytes);

}  // namespace kesto
