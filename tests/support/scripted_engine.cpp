#include "tests/support/scripted_engine.h"

#include <algorithm>
#include <ctime>
#include <stdexcept>
#include <utility>

#include "host/check/test_samples.h"

namespace kesto {
using namespace host;

namespace {

void SetNonBlocking(SOCKET socket) {
    u_long on = 1;
    ioctlsocket(socket, FIONBIO, &on);
}

// What the bytes so far are.
EngineRequest RequestIn(const std::string& raw) {
    EngineRequest it = {raw, raw.c_str(), "", false};
    size_t at = it.command.size() + 1;
    it.whole = at <= raw.size() && it.command != "zINSTREAM";
    while (!it.whole && at + 4 <= raw.size()) {
        uint32_t length = 0;
        std::copy_n(raw.data() + at, 4, reinterpret_cast<char*>(&length));
        length = ntohl(length);
        it.data.append(raw, at + 4, length);
        at += 4 + size_t{length};
        it.whole = length == 0;
    }
    return it;
}

}  // namespace

Wire::Wire(SOCKET connected, const std::atomic<bool>* cut) : socket_(connected), cut_(cut) {
    // A child process that inherited the socket would keep it open after we have closed it.
    SetHandleInformation(reinterpret_cast<HANDLE>(socket_), HANDLE_FLAG_INHERIT, 0);
    SetNonBlocking(socket_);
    const BOOL at_once = TRUE;  // pieces go out as pieces
    setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&at_once), sizeof at_once);
}

// The result of `call` once it no longer would block; -1 on failure, -2 when cut or past the limit.
int Wire::WhenReady(const std::function<int()>& call) {
    const auto until = std::chrono::steady_clock::now() + kTestLimit;
    while (cut_ != nullptr ? !*cut_ : std::chrono::steady_clock::now() < until) {
        const int result = call();
        if (result >= 0 || WSAGetLastError() != WSAEWOULDBLOCK) {
            return result;
        }
        Sleep(1);
    }
    return -2;
}

bool Wire::Send(std::string_view bytes) {
    for (int sent = 0; !bytes.empty(); bytes.remove_prefix(static_cast<size_t>(sent))) {
        const int most = static_cast<int>(std::min<size_t>(bytes.size(), 1 << 20));
        sent = WhenReady([&] { return send(socket_, bytes.data(), most, 0); });
        if (sent <= 0) {
            return false;
        }
    }
    return true;
}

// Reads no byte more than wanted, so that a script that ends early ends exactly where it means to.
bool Wire::ReceiveSome(size_t most) {
    char piece[65536];
    const int size = static_cast<int>(std::min(most, sizeof piece));
    const int got = WhenReady([&] { return recv(socket_, piece, size, 0); });
    ended_ = got == 0 || got == -1;
    if (got > 0) {
        const std::lock_guard lock(guard_);
        raw_.append(piece, static_cast<size_t>(got));
    }
    return got > 0;
}

std::string Wire::Receive(size_t size) {
    const size_t before = raw_.size();
    while (raw_.size() - before < size && ReceiveSome(size - (raw_.size() - before))) {
    }
    return raw_.substr(before);
}

EngineRequest Wire::Request() const {
    const std::lock_guard lock(guard_);
    return RequestIn(raw_);
}

EngineRequest Wire::ReceiveRequest() {
    while (!Request().whole && ReceiveSome(SIZE_MAX)) {
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

EngineScript ReplyingBytes(std::string bytes, Then then, size_t piece) {
    return [=](Wire& wire) {
        wire.ReceiveRequest();
        for (size_t sent = 0; sent < bytes.size(); sent += piece) {
            wire.Send(bytes.substr(sent, piece));
        }
        if (then == Then::kHangsUp) {
            wire.FinishSending();
        } else if (then == Then::kResets) {
            wire.Close(true);
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
    SetNonBlocking(listener);
    accepting_ = std::jthread([this, listener] { Accept(listener); });
}

void ScriptedEngine::Play(EngineScript script) {
    const std::lock_guard lock(guard_);
    script_ = std::move(script);
}

void ScriptedEngine::Kill() {
    killed_ = true;
    accepting_ = {};
    for (Connection& each : connections_) {
        each.thread = {};
    }
}

void ScriptedEngine::Accept(SOCKET listener) {
    for (; !killed_; Sleep(1)) {
        SOCKET accepted = INVALID_SOCKET;
        while ((accepted = accept(listener, nullptr, nullptr)) != INVALID_SOCKET) {
            const std::lock_guard lock(guard_);
            Connection& it = connections_.emplace_back(accepted, &killed_);
            it.thread = std::jthread([this, &it, play = script_] {
                play(it);
                it.Close(killed_);
            });
        }
    }
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
    const std::string reply = wire.Receive();
    return wire.Ended() ? reply : reply + "(no end)";
}

}  // namespace kesto
