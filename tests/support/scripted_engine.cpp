#include "tests/support/scripted_engine.h"

#include <algorithm>
#include <asio/buffer.hpp>
#include <asio/write.hpp>
#include <ctime>

#include "host/check/test_samples.h"
#include "tests/support/wait_for.h"

namespace kesto {
using namespace host;

uint16_t FreePort() {
    asio::io_context sockets;
    return tcp::acceptor(sockets, Loopback(0), false).local_endpoint().port();
}

Wire::Wire(tcp::acceptor& listener) {
    listener.accept(socket_, gone_);
    // A child process that inherited the socket would keep it open after we have closed it.
    SetHandleInformation(reinterpret_cast<HANDLE>(SOCKET{socket_.native_handle()}), HANDLE_FLAG_INHERIT, 0);
}

bool Wire::Send(std::string_view bytes) {
    return asio::write(socket_, asio::buffer(bytes), gone_) == bytes.size();
}

bool Wire::ReceiveSome() {
    const size_t before = raw_.size();
    socket_.async_receive(asio::buffer(piece_), [this](asio::error_code, size_t count) {
        const std::lock_guard lock(guard_);
        raw_.append(piece_, count);
    });
    waits_.run_one_for(3 * kTestLimit);
    return raw_.size() > before;
}

std::string Wire::Receive() {
    while (ReceiveSome()) {
    }
    return raw_;
}

EngineRequest Wire::Request() const {
    const std::lock_guard lock(guard_);
    EngineRequest it = {raw_, raw_.c_str(), "", false};
    size_t at = it.command.size() + 1;
    it.whole = at <= raw_.size() && it.command != "zINSTREAM";
    while (!it.whole && at + 4 <= raw_.size()) {
        uint32_t length = 0;
        std::copy_n(raw_.data() + at, 4, reinterpret_cast<char*>(&length));
        length = ntohl(length);
        it.data.append(raw_, at + 4, length);
        at += 4 + size_t{length};
        it.whole = length == 0;
    }
    return it;
}

EngineRequest Wire::ReceiveRequest() {
    while (!Request().whole && ReceiveSome()) {
    }
    return Request();
}

void Wire::Close(bool hard) {
    socket_.set_option(tcp::socket::linger(hard, 0), gone_);
    socket_.close(gone_);
}

EngineScript ReplyingBytes(std::string bytes, Then then) {
    return [=](Wire& wire) {
        wire.ReceiveRequest();
        wire.Send(bytes);
        if (then == Then::kHangsUp) {
            wire.FinishSending();
        }
        wire.Receive();
    };
}

EngineScript Replying(std::string_view text) {
    return ReplyingBytes(WithNul(text));
}

EngineScript Realistic(ClamdTraits traits) {
    return [=](Wire& wire) {
        const EngineRequest& request = wire.ReceiveRequest();
        const std::string data = traits.shifted ? ShiftedDown(request.data, -1) : request.data;
        const auto holds = [&](const char* word) { return data.find(word) != std::string::npos; };
        if (request.whole) {
            Replying(request.command == "zPING"                    ? "PONG"
                     : request.command == "zVERSION"               ? traits.version
                     : request.command != "zINSTREAM"              ? "UNKNOWN COMMAND"
                     : holds("GARBLE")                             ? "what?"
                     : data == EicarTestString() || holds("VIRUS") ? "stream: Test.Virus FOUND"
                                                                   : "stream: OK")(wire);
        }
    };
}

std::string VersionOfDaysAgo(int days) {
    const std::time_t then = std::time(nullptr) - days * 86400;
    char text[64];
    std::strftime(text, sizeof text, "Engine 1/27000/%a %b %d %H:%M:%S %Y", std::gmtime(&then));
    return text;
}

ScriptedEngine::ScriptedEngine(EngineScript script, uint16_t port)
    : script_(std::move(script)), listener_(sockets_, Loopback(port), false) {
    SetHandleInformation(reinterpret_cast<HANDLE>(SOCKET{listener_.native_handle()}), HANDLE_FLAG_INHERIT, 0);
    accepting_ = std::jthread([this](std::stop_token killed) { Accept(killed); });
}

void ScriptedEngine::Play(EngineScript script) {
    const std::lock_guard lock(guard_);
    script_ = std::move(script);
}

void ScriptedEngine::Kill() {
    if (accepting_.request_stop()) {
        Wire ends_accept(port_);
    }
    accepting_ = {};
    listener_.close();
    listener_.open(tcp::v4());
    asio::error_code taken;
    listener_.bind(Loopback(port_), taken);  // so that nobody else gets the port, and serves there
    for (Wire& each : connections_) {
        each.EndWaits();
    }
    threads_.clear();
}

void ScriptedEngine::Accept(std::stop_token killed) {
    for (;;) {
        std::list<Wire> accepted;
        Wire& it = accepted.emplace_back(listener_);
        if (killed.stop_requested()) {
            return;
        }
        const std::lock_guard lock(guard_);
        connections_.splice(connections_.end(), accepted);
        threads_.emplace_back([killed, &it, play = script_] {
            play(it);
            it.Close(killed.stop_requested());
        });
    }
}

std::vector<EngineRequest> ScriptedEngine::Requests() const {
    const std::lock_guard lock(guard_);
    std::vector<EngineRequest> requests;
    for (const Wire& each : connections_) {
        requests.push_back(each.Request());
    }
    return requests;
}

std::string WithNul(std::string_view text) {
    return std::string(text) + '\0';
}

std::string ShiftedDown(std::string data, int by) {
    for (char& c : data) {
        c = static_cast<char>(c - by);
    }
    return data;
}

std::string ScanRequestOf(const std::string& data, bool shifted) {
    constexpr size_t kChunk = 8192;
    const std::string sent = shifted ? ShiftedDown(data) : data;
    std::string request = WithNul("zINSTREAM");
    for (size_t at = 0; at < sent.size(); at += kChunk) {
        const std::string chunk = sent.substr(at, kChunk);
        const uint32_t length = htonl(static_cast<uint32_t>(chunk.size()));
        request.append(reinterpret_cast<const char*>(&length), 4).append(chunk);
    }
    return request + std::string(4, '\0');
}

std::string Ask(uint16_t port, const std::string& bytes) {
    Wire wire(port);
    wire.Send(bytes);
    return wire.Receive();
}

}  // namespace kesto
