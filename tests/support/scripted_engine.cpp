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

// Takes in what has newly arrived.
void Parse(EngineRequest& it) {
    if (const size_t end = it.raw.find('\0'); it.parsed == 0 && end != std::string::npos) {
        it.command = it.raw.substr(0, end);
        it.parsed = end + 1;
        it.whole = it.command != "zINSTREAM";
    }
    while (it.parsed > 0 && !it.whole && it.raw.size() - it.parsed >= 4) {
        uint32_t length = 0;
        std::copy_n(it.raw.data() + it.parsed, 4, reinterpret_cast<char*>(&length));
        length = ntohl(length);
        if (it.raw.size() - it.parsed - 4 < length) {
            return;
        }
        it.data.append(it.raw, it.parsed + 4, length);
        it.parsed += 4 + size_t{length};
        it.whole = length == 0;
    }
}

}  // namespace

Wire::Wire(SOCKET connected, Script* script) : socket_(connected), script_(script) {
    SetNonBlocking(socket_);
    const BOOL at_once = TRUE;  // pieces go out as pieces
    setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&at_once), sizeof at_once);
}

// The result of `call` once it no longer would block; -1 on failure, -2 when cut or past the limit.
template <class Call>
int Wire::WhenReady(Call call) {
    const auto until = std::chrono::steady_clock::now() + kTestLimit;
    while (script_ != nullptr ? !script_->cut : std::chrono::steady_clock::now() < until) {
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
bool Wire::ReceiveSome(std::string& bytes, size_t most) {
    char piece[65536];
    const int size = static_cast<int>(std::min(most, sizeof piece));
    const int got = WhenReady([&] { return recv(socket_, piece, size, 0); });
    ended_ = got == 0 || got == -1;
    if (got > 0) {
        bytes.append(piece, static_cast<size_t>(got));
        if (script_ != nullptr) {
            const std::lock_guard lock(script_->guard);
            script_->request.raw.append(piece, static_cast<size_t>(got));
            Parse(script_->request);
        }
    }
    return got > 0;
}

std::string Wire::Receive(size_t size) {
    std::string bytes;
    while (bytes.size() < size && ReceiveSome(bytes, size - bytes.size())) {
    }
    return bytes;
}

const EngineRequest& Wire::ReceiveRequest() {
    for (std::string bytes; !script_->request.whole && ReceiveSome(bytes, SIZE_MAX);) {
    }
    return script_->request;
}

void Wire::ReplyAndHangUp(std::string_view text) {
    Send(WithNul(text));
    FinishSending();
    Receive();
}

void Wire::Hold() {
    while (!script_->cut) {
        Sleep(1);
    }
}

void Wire::Reset() {
    const linger hard = {1, 0};
    setsockopt(socket_, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&hard), sizeof hard);
    closesocket(std::exchange(socket_, INVALID_SOCKET));
}

EngineScript ReplyingBytes(std::string bytes, Then then, size_t piece) {
    return [=](Wire& wire) {
        wire.ReceiveRequest();
        for (size_t sent = 0; sent < bytes.size(); sent += std::min(piece, bytes.size() - sent)) {
            wire.Send(std::string_view(bytes).substr(sent, piece));
        }
        if (then == Then::kHangsUp) {
            wire.FinishSending();
        } else if (then == Then::kResets) {
            wire.Reset();
        }
        wire.Receive();
    };
}

EngineScript Replying(std::string_view text) {
    return ReplyingBytes(WithNul(text));
}

EngineScript DyingAfter(size_t bytes, bool resets) {
    return [=](Wire& wire) {
        wire.Receive(bytes);
        if (resets) {
            wire.Reset();
        }
    };
}

EngineScript Endless(std::string beginning) {
    return [=](Wire& wire) {
        wire.ReceiveRequest();
        for (std::string next = beginning; wire.Send(next); next.assign(65536, 'x')) {
        }
    };
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
            SetHandleInformation(reinterpret_cast<HANDLE>(accepted), HANDLE_FLAG_INHERIT, 0);
            const std::lock_guard lock(guard_);
            Connection& it = connections_.emplace_back(killed_);
            ++accepted_;
            it.thread = std::jthread([this, &it, accepted, play = script_] {
                Wire wire(accepted, &it);
                play(wire);
                if (killed_) {
                    wire.Reset();
                }
            });
        }
    }
    closesocket(listener);
}

std::vector<EngineRequest> ScriptedEngine::Requests() const {
    const std::lock_guard lock(guard_);
    std::vector<EngineRequest> requests;
    for (const Connection& each : connections_) {
        const std::lock_guard of_request(each.guard);
        requests.push_back(each.request);
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

std::string ChunkStreamOf(std::string_view data, size_t chunk_size) {
    std::string stream;
    for (; !data.empty(); data.remove_prefix(std::min(chunk_size, data.size()))) {
        const std::string_view chunk = data.substr(0, chunk_size);
        const uint32_t length = htonl(static_cast<uint32_t>(chunk.size()));
        stream.append(reinterpret_cast<const char*>(&length), 4).append(chunk);
    }
    return stream + std::string(4, '\0');
}

std::string ScanRequestOf(const std::string& data, bool shifted) {
    return WithNul("zINSTREAM") + ChunkStreamOf(shifted ? ShiftedDown(data) : data);
}

std::string Ask(uint16_t port, const std::string& bytes) {
    Wire wire(ConnectToLoopback(port));
    wire.Send(bytes);
    const std::string reply = wire.Receive();
    return wire.Ended() ? reply : reply + "(no end)";
}

}  // namespace kesto
