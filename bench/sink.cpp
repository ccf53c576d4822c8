#include "bench/sink.h"

#include <algorithm>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <string_view>
#include <thread>
#include <vector>

#include "base/clamd_words.h"
#include "tests/support/scripted_engine.h"

namespace kesto {
namespace {

// Reads much at a time, in threads that wait in `accept` beforehand: the sink should cost less than what is
// measured with it. So it sees that a scan's stream has ended without a look at its chunks: the bench's files
// hold no byte of 0, shifted or not, so four in a row are the chunk of no bytes that ends the stream.
void ServeConnections(SOCKET listener) {
    std::vector<char> buffer(256 * 1024);
    for (SOCKET client; (client = accept(listener, nullptr, nullptr)) != INVALID_SOCKET;
         closesocket(client)) {
        int count = 1;
        for (size_t zeros = 0; count > 0 && zeros < 4;) {
            count = recv(client, buffer.data(), static_cast<int>(buffer.size()), 0);
            const std::string_view bytes(buffer.data(), static_cast<size_t>(std::max(count, 0)));
            const size_t behind = bytes.find_last_not_of('\0') + 1;
            zeros = bytes.size() - behind + (behind == 0 ? zeros : 0);
        }
        if (count > 0) {
            send(client, kCleanReply.data(), static_cast<int>(kCleanReply.size()) + 1, 0);  // with its NUL
            recv(client, buffer.data(), 1, 0);  // the sender closes first
        }
    }
}

}  // namespace

void ServeSink(uint16_t port) {
    asio::io_context sockets;
    tcp::acceptor listener(sockets, Loopback(port), false);
    std::jthread threads[16];
    for (std::jthread& each : threads) {
        each = std::jthread(ServeConnections, listener.native_handle());
    }
}

}  // namespace kesto
