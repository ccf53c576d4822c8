#include "bridge/listener.h"

#include <asio/post.hpp>
#include <exception>
#include <utility>

#include "bridge/client.h"
#include "common/bridge_log.h"
#include "common/detached_thread.h"
#include "common/error_words.h"
#include "common/tcp_options.h"

namespace kesto::bridge {
namespace {

using asio::ip::tcp;

using namespace std::chrono_literals;

constexpr long kBetweenLooksUs = 100'000;  // for the end
constexpr DWORD kPauseAfterFailureMs = 100;

// A client that is let in at the last moment gets this long to begin with its command.
constexpr auto kLastArrivals = 2s;

// How an accept fails whose client left before. The next one must not wait for that.
bool HasLeft(int error) {
    return error == WSAECONNRESET || error == WSAECONNABORTED || error == WSAENOTCONN ||
           error == WSAETIMEDOUT || error == WSAESHUTDOWN || error == WSAEDISCON;
}

}  // namespace

Listener::Listener(Bridge& bridge, SOCKET shared, HANDLE closed)
    : bridge_(bridge), shared_(shared), closed_(closed) {
    ResetEvent(closed_);
    if (!RunDetached([this] { Accept(); })) {
        throw std::bad_alloc();
    }
}

void Listener::Accept() {
    for (;;) {
        WaitForSingleObject(door_, INFINITE);
        Doorway doorway(door_);
        if (leaving_) {
            closesocket(shared_);
            SetEvent(closed_);
            return;
        }
        tcp::endpoint peer;
        int size = static_cast<int>(peer.capacity());
        const SOCKET client = accept(shared_, peer.data(), &size);
        const int error = WSAGetLastError();
        if (client != INVALID_SOCKET) {
            HandOver(client, peer, std::move(doorway));
        } else if (error == WSAEWOULDBLOCK) {
            fd_set waiting = {};
            timeval limit = {0, kBetweenLooksUs};
            FD_SET(shared_, &waiting);
            select(0, &waiting, nullptr, nullptr, &limit);
        } else if (!HasLeft(error)) {  // a lack of resources
            LogFailure(error);
            Sleep(kPauseAfterFailureMs);
        }
    }
}

void Listener::HandOver(SOCKET client, const tcp::endpoint& peer, Doorway doorway) {
    acknowledges_ = acknowledges_ && AcknowledgeAtOnce(client);
    tcp::socket socket(bridge_.io);
    asio::error_code error;
    socket.assign(tcp::v4(), client, error);
    if (error) {
        closesocket(client);
        return LogFailure(error.value());
    }
    try {
        asio::post(bridge_.io,
                   [this, arrival = Arrival{std::move(socket), peer, std::move(doorway)}]() mutable {
                       arrival_.emplace(std::move(arrival));
                   });
    } catch (const std::exception&) {  // out of memory: the connection is closed
        Sleep(kPauseAfterFailureMs);
    }
}

void Listener::LogFailure(int error) {
    try {
        asio::post(bridge_.io, [error] {
            LogBridge("accept",
                      "could not accept a client - " + ErrorWords(static_cast<unsigned long>(error)));
        });
    } catch (const std::exception&) {
    }
}

// More clients than may have a scan under way, so that questions can be asked beside them.
void Listener::LetIn() {
    if (!arrival_ || (bridge_.clients.size() >= size_t{2} * bridge_.settings.clients && !bridge_.stopping)) {
        return;
    }
    Arrival arrival = *std::exchange(arrival_, std::nullopt);
    if (!bridge_.stopping) {
        Client::Serve(bridge_, std::move(arrival.socket), arrival.peer);
    }
}

void Listener::Leave() {
    leaving_ = true;
    SetEvent(door_);  // also while a client that has arrived waits there for room
}

void Listener::Tick(Time now) {
    if (!leaving_ || bridge_.stopping) {
        return;
    }
    if (!left_) {
        left_ = now;
        LogBridge("end", "ending after the running scans");
    }
    if (now >= *left_ + kLastArrivals && !arrival_) {
        Stop(bridge_, now);
    }
}

}  // namespace kesto::bridge
