#include "tests/support/scripted_engine.h"

#include <algorithm>
#include <ctime>
#include <stdexcept>
#include <utility>

#include "host/check/test_samples.h"

namespace kesto {
using namespace host;

Wire::Wire(SOCKET connected, const std::atomic<bool>* cut) : socket_(connected), cut_(cut) {
    // A child process that inherited the socket would keep it open after we have closed it.
    SetHandleInformation(reinterpret_cast<HANDLE>(socket_), HANDLE_FLAG_INHERIT, 0);
    const auto limit = [this](int of, DWORD ms) {
        setsockopt(socket_, SOL_SOCKET, of, reinterpret_cast<const char*>(&ms), sizeof ms);
    };
    limit(SO_SNDTIMEO, kTestLimit.count());
    limit(SO_RCVTIMEO, cut_ != nullptr ? 20 : kTestLimit.count());
}

bool Wire::Send(std::string_view bytes) {
    const int size = static_cast<int>(bytes.size());
    return send(socket_, bytes.data(), size, 0) == size;
}

bool Wire::ReceiveSome() {
    char piece[65536];
    int got = 0;
    do {
        got = recv(socket_, piece, sizeof piece, 0);
    } while (got < 0 && WSAGetLastError() == WSAETIMEDOUT && cut_ != nullptr && !*cut_);
    const std::lock_guard lock(guard_);
    raw_.append(piece, static_cast<size_t>(std::max(got, 0)));
    return got > 0;
}

std::string Wire::Receive() {
    const size_t before = raw_.size();
    while (ReceiveSome()) {
    }
    return raw_.substr(before);
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

void Wire::ReplyAndHangUp(std::string_view text) {
    Send(WithNul(text));
    FinishSending();
    Receive();
}

void Wire::Close(bool hard) {
    const linger how = {hard, 0};
    setsockopt(socket_, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&how), sizeof how);
    closesocket(std::exchange(socket_, INVALID_SOCKET));
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
            wire.ReplyAndHangUp(request.command == "zPING"                    ? "PONG"
                                : request.command == "zVERSION"               ? traits.version
                                : request.command != "zINSTREAM"              ? "UNKNOWN COMMAND"
                                : holds("GARBLE")                             ? "what?"
                                : data == EicarTestString() || holds("VIRUS") ? "stream: Test.Virus FOUND"
                                                                              : "stream: OK");
        }
    };
}

std::string VersionOfDaysAgo(int days) {
    const std::time_t then = std::time(nullptr) - days * 86400;
    char text[64];
    std::strftime(text, sizeof text, "Engine 1/27000/%a %b %d %H:%M:%S %Y", std::gmtime(&then));
    return text;
}

ScriptedEngine::ScriptedEngine(EngineScript script, uint16_t port) : script_(std::move(script)), port_(port) {
    const SOCKET listener = ListenOnLoopback(port_);
    if (listener == INVALID_SOCKET) {
        throw std::runtime_error("port " + std::to_string(port_) + " is taken");
    }
    accepting_ = std::jthread([this, listener] { Accept(listener); });
}

void ScriptedEngine::Play(EngineScript script) {
    const std::lock_guard lock(guard_);
    script_ = std::move(script);
}

void ScriptedEngine::Kill() {
    if (!killed_.exchange(true)) {
        closesocket(ConnectToLoopback(port_));  // ends the wait in Accept
    }
    accepting_ = {};
    for (Connection& each : connections_) {
        each.thread = {};
    }
}

void ScriptedEngine::Accept(SOCKET listener) {
    SOCKET accepted = accept(listener, nullptr, nullptr);
    for (; !killed_; accepted = accept(listener, nullptr, nullptr)) {
        const std::lock_guard lock(guard_);
        Connection& it = connections_.emplace_back(accepted, &killed_);
        it.thread = std::jthread([this, &it, play = script_] {
            play(it);
            it.Close(killed_);
        });
    }
    closesocket(accepted);
    closesocket(listener);
}

std::vector<EngineRequest> ScriptedEngine::Requests() const {
    const std::lock_guard lock(guard_);
    std::vector<EngineRequest> requests;
    for (const Connection& each : connections_) {
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
    Wire wire(ConnectToLoopback(port));
    wire.Send(bytes);
    return wire.Receive();
}

}  // namespace kesto
