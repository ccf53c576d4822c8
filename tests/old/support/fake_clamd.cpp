#include "tests/support/fake_clamd.h"

#include <utility>

namespace kesto {

FakeClamd::FakeClamd(ClamdScript script) : script_(std::move(script)) {
    Revive();
}

FakeClamd::~FakeClamd() {
    Kill();
    for (Connection& connection : connections_) {
        connection.thread.join();
    }
}

void FakeClamd::Revive() {
    listener_ = ListenOnLoopback(port_);
    accepting_ = std::thread([this, listener = listener_] { Accept(listener); });
}

void FakeClamd::Kill() {
    if (listener_ == INVALID_SOCKET) {
        return;
    }
    closesocket(std::exchange(listener_, INVALID_SOCKET));
    accepting_.join();
    const std::lock_guard lock(guard_);
    for (Connection& connection : connections_) {
        if (!connection.over) {
            connection.wire.Reset();
        }
    }
}

void FakeClamd::Accept(SOCKET listener) {
    SOCKET accepted = INVALID_SOCKET;
    while ((accepted = accept(listener, nullptr, nullptr)) != INVALID_SOCKET) {
        const std::lock_guard lock(guard_);
        ++accepted_;
        Connection& connection = connections_.emplace_back(Wire(accepted));
        connection.thread = std::thread([this, &connection] {
            script_(connection.wire);
            {
                const std::lock_guard ending(guard_);
                if (!connection.over.exchange(true)) {
                    Wire ended(std::move(connection.wire));
                }
            }
            ++ended_;
        });
    }
}

std::optional<ScanRequestSeen> ReceiveScanRequest(Wire& wire) {
    ScanRequestSeen seen;
    while (true) {
        const std::string length = wire.Receive(4);
        if (length.size() < 4) {
            return std::nullopt;
        }
        seen.stream += length;
        uint32_t size = 0;
        for (const char c : length) {
            size = size << 8 | static_cast<unsigned char>(c);
        }
        if (size == 0) {
            return seen;
        }
        const std::string data = wire.Receive(size);
        if (data.size() < size) {
            return std::nullopt;
        }
        seen.stream += data;
        seen.data += data;
    }
}

std::string ReceiveCommand(Wire& wire) {
    std::string command;
    for (std::string c = wire.Receive(1); !c.empty() && c[0] != '\0'; c = wire.Receive(1)) {
        command += c;
    }
    return command;
}

ClamdScript RealisticClamd() {
    return [](Wire& wire) {
        const std::string command = ReceiveCommand(wire);
        if (command == "zPING") {
            wire.Send(std::string("PONG\0", 5));
        } else if (command == "zVERSION") {
            wire.Send(std::string("ClamAV 1.4.3/27000/Mon Jan  1 00:00:00 2024\0", 44));
        } else if (const auto request = ReceiveScanRequest(wire)) {
            const bool evil = request->data.find("evil") != std::string::npos;
            wire.Send(evil ? std::string("stream: Evil.Test FOUND\0", 24) : std::string("stream: OK\0", 11));
        }
    };
}

ClamdScript Replying(std::string reply) {
    return [reply = reply + '\0'](Wire& wire) {
        ReceiveCommand(wire);
        ReceiveScanRequest(wire);
        wire.Send(reply);
    };
}

}  // namespace kesto
