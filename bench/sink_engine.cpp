#include "bench/sink_engine.h"

#include <algorithm>
#include <thread>
#include <vector>

#include "base/clamd_words.h"
#include "bench/wire.h"
#include "bridge/framing.h"
#include "tests/loopback/loopback.h"

namespace kesto {
using namespace bridge;

namespace {

// Large reads and a thread that waits in `accept` already: the sink should cost less than what is
// measured against it.
void ServeConnections(SOCKET listener) {
    std::vector<uint8_t> buffer(256 * 1024);
    for (;;) {
        const SOCKET connection = accept(listener, nullptr, nullptr);
        if (connection == INVALID_SOCKET) {
            return;
        }
        size_t command_left = kScanCommand.size();
        ChunkStream stream;
        for (;;) {
            const int count =
                recv(connection, reinterpret_cast<char*>(buffer.data()), static_cast<int>(buffer.size()), 0);
            if (count <= 0) {
                break;
            }
            const size_t command = std::min(command_left, static_cast<size_t>(count));
            command_left -= command;
            FollowChunks(stream, buffer.data() + command, static_cast<size_t>(count) - command, false);
            if (stream.ended) {
                send(connection, kCleanReply.data(), 11, 0);
                recv(connection, reinterpret_cast<char*>(buffer.data()), 1, 0);  // the sender closes first
                break;
            }
        }
        closesocket(connection);
    }
}

}  // namespace

int ServeSink(uint16_t port) {
    constexpr int kThreads = 16;
    const SOCKET listener = ListenOnLoopback(port);
    if (listener == INVALID_SOCKET) {
        return 1;
    }
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back(ServeConnections, listener);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    return 1;
}

}  // namespace kesto
