// The scripted engine, which all tests use: a clamd that does what a test tells it, and keeps what it was
// sent.
//
//     ScriptedEngine engine(Replying("stream: Evil FOUND"));
//     ... scan with engine.Port() ...
//     EXPECT_EQ(engine.Requests().at(0).data, "as sent");
#pragma once

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace kesto {

using asio::ip::tcp;

inline tcp::endpoint Loopback(uint16_t port) {
    return {asio::ip::address_v4::loopback(), port};
}
uint16_t FreePort();

// One connection as the engine saw it.
struct EngineRequest {
    std::string raw;      // every byte that came, even after the request
    std::string command;  // without its NUL
    std::string data;     // of the chunks
    bool whole = false;   // whether the command has come with its NUL and, for a scan, the stream to its end
};

// A connection, of a script or of a client; closed with the object. Calls after the other side has gone are
// harmless. A wait for the next byte ends after half a minute.
class Wire {
 public:
    explicit Wire(uint16_t port) { socket_.connect(Loopback(port), gone_); }
    explicit Wire(tcp::acceptor& listener);  // waits for a client

    bool Send(std::string_view bytes);
    std::string Receive();  // all that comes until the other side ends or the limit passes
    // For scripts: a whole request, or as much of one as came.
    EngineRequest ReceiveRequest();
    EngineRequest Request() const;  // what has come so far; any thread may ask
    // For scripts: neither reads nor writes until the end.
    void Hold() { waits_.run(); }
    void FinishSending() { socket_.shutdown(tcp::socket::shutdown_send, gone_); }
    void Close(bool hard = false);  // hard: with a reset
    // Ends every wait, now and later; any thread may call it.
    void EndWaits() { waits_.stop(); }

 private:
    bool ReceiveSome();

    mutable std::mutex guard_;  // of what has come
    std::string raw_;
    char piece_[65536] = {};
    asio::error_code gone_;
    asio::io_context waits_;
    asio::executor_work_guard<asio::io_context::executor_type> lasting_{waits_.get_executor()};
    tcp::socket socket_{waits_};
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
    void Accept(std::stop_token killed);

    mutable std::mutex guard_;  // of the script and of the list, not of what is in it
    EngineScript script_;
    asio::io_context sockets_;
    tcp::acceptor listener_;
    const uint16_t port_ = listener_.local_endpoint().port();
    std::list<Wire> connections_;
    std::jthread accepting_;
    std::list<std::jthread> threads_;
};

// What clients say.
std::string WithNul(std::string_view text);
std::string ShiftedDown(std::string data, int by = 1);  // 1: as the plug-in's encrypt setting does
// All the bytes of a scan as the plug-in sends it.
std::string ScanRequestOf(const std::string& data, bool shifted = true);
// Sends bytes on a new connection and returns all that comes back.
std::string Ask(uint16_t port, const std::string& bytes);

}  // namespace kesto
