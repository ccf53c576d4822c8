#include "bridge/listener.h"

#include <mstcpip.h>

#include <algorithm>
#include <asio/steady_timer.hpp>
#include <exception>
#include <thread>
#include <utility>

#include "bridge/bridge_log.h"
#include "bridge/client.h"
#include "common/error_words.h"

namespace kesto::bridge {
namespace {

using asio::ip::tcp;
using namespace std::chrono_literals;

// A bridge that has just ended may still hold the port.
constexpr auto kWaitForPort = 10s;

// The plug-in sends a chunk's length and the chunk apart, and Windows holds the second back until the first
// is acknowledged: which it delays by 40 to 200 ms, unless told to do so at once. False where the system has
// no such option.
template <typename Socket>
bool AcknowledgeAtOnce(Socket& socket) {
#ifndef SIO_TCP_SET_ACK_FREQUENCY
    constexpr DWORD SIO_TCP_SET_ACK_FREQUENCY = 0x98000017;
#endif
    BYTE frequency = 1;
    DWORD size = 0;
    return WSAIoctl(socket.native_handle(), SIO_TCP_SET_ACK_FREQUENCY, &frequency, sizeof frequency, nullptr,
                    0, &size, nullptr, nullptr) == 0 ||
           WSAGetLastError() != WSAEOPNOTSUPP;
}

bool IsLackOfResources(const asio::error_code& error) {
    constexpr int kErrors[] = {WSAEMFILE,
                               WSAENOBUFS,
                               ERROR_NOT_ENOUGH_MEMORY,
                               ERROR_OUTOFMEMORY,
                               ERROR_NO_SYSTEM_RESOURCES,
                               ERROR_TOO_MANY_OPEN_FILES};
    return std::find(std::begin(kErrors), std::end(kErrors), error.value()) != std::end(kErrors);
}

asio::error_code TryToListen(tcp::acceptor& acceptor, const tcp::endpoint& where) {
    asio::error_code error;
    acceptor.open(where.protocol(), error);
    if (error) {
        return error;
    }
    const BOOL on = TRUE;
    setsockopt(acceptor.native_handle(), SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&on),
               sizeof on);
    AcknowledgeAtOnce(acceptor);
    acceptor.bind(where, error);
    if (!error) {
        acceptor.listen(tcp::acceptor::max_listen_connections, error);
    }
    if (error) {
        asio::error_code ignored;
        acceptor.close(ignored);
    }
    return error;
}

}  // namespace

asio::error_code Listen(tcp::acceptor& acceptor, const ServerAddress& where) {
    const tcp::endpoint endpoint(asio::ip::make_address(where.host), where.port);
    const Time until = Clock::now() + kWaitForPort;
    for (bool told = false;;) {
        const asio::error_code error = TryToListen(acceptor, endpoint);
        const bool may_pass = error.value() == WSAEADDRINUSE || error.value() == WSAEACCES;
        if (!may_pass || Clock::now() >= until) {
            return error;
        }
        if (!std::exchange(told, true)) {
            LogBridge("listen", "cannot listen on " + AddressText(where) + " yet - " +
                                    ErrorWords(static_cast<unsigned long>(error.value())));
        }
        std::this_thread::sleep_for(250ms);
    }
}

Task LetIn(Bridge& bridge, tcp::acceptor& acceptor) {
    bool acknowledges = true;
    while (!bridge.stopping) {
        tcp::socket socket(bridge.io);
        tcp::endpoint peer;
        auto accept =
            Operation([&](auto handler) { acceptor.async_accept(socket, peer, std::move(handler)); });
        const asio::error_code error = (co_await accept).error;
        if (bridge.stopping) {
            break;
        }
        if (error) {
            // A client that was gone before it was let in is no reason to keep the next one waiting.
            if (IsLackOfResources(error)) {
                LogBridge("accept", "could not accept a client - " +
                                        ErrorWords(static_cast<unsigned long>(error.value())));
                asio::steady_timer timer(bridge.io, 100ms);
                auto pause = Operation([&timer](auto handler) { timer.async_wait(std::move(handler)); });
                co_await pause;
            }
            continue;
        }
        acknowledges = acknowledges && AcknowledgeAtOnce(socket);
        while (bridge.clients.size() >= bridge.settings.clients && !bridge.stopping) {
            bridge.crowded = true;
            co_await bridge.place;
            bridge.crowded = false;
        }
        if (bridge.stopping) {
            break;
        }
        try {
            Client::Serve(bridge, std::move(socket), peer);
        } catch (const std::exception& failure) {
            LogBridge("accept", std::string("could not serve a client - ") + failure.what());
        }
    }
}

}  // namespace kesto::bridge
