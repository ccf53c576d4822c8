#include "tests/support/scripted_engine.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "host/check/test_samples.h"

namespace kesto {
namespace {

uint32_t ReadLength(std::string_view four_bytes) {
    uint32_t length = 0;
    for (const char c : four_bytes) {
        length = length << 8 | static_cast<unsigned char>(c);
    }
    return length;
}

EngineRequest Parse(const std::string& raw) {
    EngineRequest request;
    request.raw = raw;
    size_t at = raw.find('\0');
    request.command = raw.substr(0, at);
    if (at == std::string::npos || request.command != "zINSTREAM") {
        request.whole = at != std::string::npos;
        return request;
    }
    for (++at; raw.size() - at >= 4; at += request.chunk_lengths.back()) {
        const uint32_t length = ReadLength({raw.data() + at, 4});
        at += 4;
        if (length == 0) {
            request.whole = true;
            return request;
        }
        if (raw.size() - at < length) {
            return request;
        }
        request.chunk_lengths.push_back(length);
        request.data.append(raw, at, length);
    }
    return request;
}

}  // namespace

std::string ReceiveCommand(Wire& wire) {
    std::string command;
    for (std::string c = wire.Receive(1); !c.empty() && c[0] != '\0'; c = wire.Receive(1)) {
        command += c;
    }
    return command;
}

std::optional<std::string> ReceiveStream(Wire& wire) {
    std::string data;
    while (true) {
        const std::string length = wire.Receive(4);
        const uint32_t size = ReadLength(length);
        const std::string chunk = wire.Receive(size);
        if (length.size() < 4 || chunk.size() < size) {
            return std::nullopt;
        }
        if (size == 0) {
            return data;
        }
        data += chunk;
    }
}

std::string ReceiveRequest(Wire& wire) {
    std::string command = ReceiveCommand(wire);
    if (command == "zINSTREAM") {
        ReceiveStream(wire);
    }
    return command;
}

void ReplyAndHangUp(Wire& wire, std::string_view text) {
    wire.Send(WithNul(text));
    wire.FinishSending();
    wire.ReceiveRest();
}

EngineScript Replying(std::string text) {
    return ReplyingBytes(std::move(text) + '\0');
}

EngineScript ReplyingBytes(std::string bytes, size_t piece, bool resets) {
    return [=](Wire& wire) {
        ReceiveRequest(wire);
        for (size_t sent = 0; sent < bytes.size(); sent += std::min(piece, bytes.size() - sent)) {
            wire.Send(std::string_view(bytes).substr(sent, piece));
        }
        if (resets) {
            wire.Reset();
            return;
        }
        wire.FinishSending();
        wire.ReceiveRest();
    };
}

EngineScript DyingAfter(size_t bytes) {
    return [=](Wire& wire) { wire.Receive(bytes); };
}

EngineScript ResettingAfter(size_t bytes) {
    return [=](Wire& wire) {
        wire.Receive(bytes);
        wire.Reset();
    };
}

EngineScript Silent(std::string beginning) {
    return [=](Wire& wire) {
        ReceiveRequest(wire);
        wire.Send(beginning);
        wire.ReceiveRest();
    };
}

EngineScript Deaf() {
    return [](Wire& wire) { wire.Hold(); };
}

EngineScript Endless(std::string beginning) {
    return [=](Wire& wire) {
        ReceiveRequest(wire);
        for (std::string next = beginning; wire.Send(next); next.assign(65536, 'x')) {
        }
    };
}

EngineScript Realistic(ClamdTraits traits) {
    return [=](Wire& wire) {
        const std::string command = ReceiveCommand(wire);
        if (command == "zPING") {
            ReplyAndHangUp(wire, "PONG");
        } else if (command == "zVERSION") {
            ReplyAndHangUp(wire, traits.version);
        } else if (auto data = command == "zINSTREAM" ? ReceiveStream(wire) : std::nullopt) {
            for (char& c : *data) {
                c = static_cast<char>(c + (traits.shifted ? 1 : 0));
            }
            const auto holds = [&](const char* word) { return data->find(word) != std::string::npos; };
            const bool infected = traits.signatures && (*data == EicarTestString() || holds("VIRUS"));
            ReplyAndHangUp(wire, holds("GARBLE") ? "what?"
                                 : infected      ? "stream: Test.Virus FOUND"
                                                 : "stream: OK");
        }
    };
}

EngineScript ScriptNamed(const std::string& words) {
    std::istringstream stream(words);
    std::string name, rest;
    std::getline(stream >> name >> std::ws, rest);
    const size_t number = strtoul(rest.c_str(), nullptr, 10);
    return name == "die"         ? DyingAfter(number)
           : name == "reset"     ? ResettingAfter(number)
           : name == "silent"    ? Silent()
           : name == "deaf"      ? Deaf()
           : name == "endless"   ? Endless("stream: ")
           : name == "realistic" ? Realistic()
           : name == "shifted"   ? Realistic({.shifted = true})
                                 : Replying(rest);
}

ScriptedEngine::ScriptedEngine(EngineScript script, uint16_t port, bool keeps_requests)
    : script_(std::move(script)), port_(port), keeps_requests_(keeps_requests) {
    Revive();
}

ScriptedEngine::~ScriptedEngine() {
    Kill();
}

void ScriptedEngine::Play(EngineScript script) {
    const std::lock_guard lock(guard_);
    script_ = std::move(script);
}

void ScriptedEngine::Revive() {
    const SOCKET listener = ListenOnLoopback(port_);
    if (listener == INVALID_SOCKET) {
        throw std::runtime_error("port " + std::to_string(port_) + " is taken");
    }
    killed_ = false;
    accepting_ = std::thread([this, listener] { Accept(listener); });
}

void ScriptedEngine::Kill() {
    if (killed_.exchange(true)) {
        return;
    }
    accepting_.join();
    for (Connection& each : connections_) {
        each.watch.cut = true;
    }
    for (Connection& each : connections_) {
        if (each.thread.joinable()) {
            each.thread.join();
        }
    }
}

void ScriptedEngine::Accept(SOCKET listener) {
    u_long on = 1;
    ioctlsocket(listener, FIONBIO, &on);
    while (!killed_) {
        const SOCKET accepted = accept(listener, nullptr, nullptr);
        if (accepted == INVALID_SOCKET) {
            Sleep(1);
            continue;
        }
        SetHandleInformation(reinterpret_cast<HANDLE>(accepted), HANDLE_FLAG_INHERIT, 0);
        const std::lock_guard lock(guard_);
        WireWatch& watch = connections_.emplace_back().watch;
        watch.keeps_raw = keeps_requests_;
        ++accepted_;
        connections_.back().thread = std::thread([this, accepted, &watch, script = script_] {
            {
                Wire wire(accepted, &watch);
                script(wire);
                if (watch.cut) {
                    wire.Reset();
                }
            }
            ++ended_;
        });
    }
    closesocket(listener);
}

size_t ScriptedEngine::BytesReceived() const {
    const std::lock_guard lock(guard_);
    size_t bytes = 0;
    for (const Connection& each : connections_) {
        bytes += each.watch.bytes;
    }
    return bytes;
}

std::vector<EngineRequest> ScriptedEngine::Requests() const {
    const std::lock_guard lock(guard_);
    std::vector<EngineRequest> requests;
    for (const Connection& each : connections_) {
        const std::lock_guard raw_lock(each.watch.guard);
        requests.push_back(Parse(each.watch.raw));
    }
    return requests;
}

std::string WithNul(std::string_view text) {
    return std::string(text) + '\0';
}

std::string ShiftedDown(std::string data) {
    for (char& c : data) {
        c = static_cast<char>(c - 1);
    }
    return data;
}

std::string ChunkStreamOf(std::string_view data, size_t chunk_size) {
    std::string stream;
    for (size_t at = 0; at < data.size(); at += chunk_size) {
        const size_t size = std::min(chunk_size, data.size() - at);
        for (int shift = 24; shift >= 0; shift -= 8) {
            stream += static_cast<char>(size >> shift & 0xFF);
        }
        stream.append(data, at, size);
    }
    return stream + std::string(4, '\0');
}

std::string ScanRequestOf(const std::string& data, bool shifted) {
    return WithNul("zINSTREAM") + ChunkStreamOf(shifted ? ShiftedDown(data) : data);
}

std::string Ask(uint16_t port, const std::string& bytes) {
    Wire wire(ConnectToLoopback(port));
    wire.Send(bytes);
    const auto [reply, ended] = wire.ReceiveRest();
    return ended ? reply : reply + "(no end)";
}

}  // namespace kesto
