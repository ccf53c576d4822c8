// Lets clients in, as many at a time as the settings allow.
#pragma once

#include <winsock2.h>

#include <asio/ip/tcp.hpp>
#include <atomic>
#include <memory>
#include <optional>

#include "bridge/bridge.h"

namespace kesto::bridge {

// Accepts in a thread of its own, since the listening socket is shared with the guard and other workers, and
// a completion port never gives a socket back. The socket must not block.
class Listener {
 public:
    // The event `closed` is set except while clients are accepted here.
    Listener(Bridge& bridge, SOCKET shared, HANDLE closed);

    // Another worker takes the clients from now on: accepts no further one, and stops the bridge when those
    // that have come have had time to ask for something. May be called in any thread.
    void Leave();

    // Lets in the client that has arrived, if there is room; to be called when a handler has ended.
    void LetIn();
    void Tick(Time now);  // every now and then

 private:
    // Held by the one client that is being let in; the next one is not accepted before.
    struct LeaveDoor {
        using pointer = HANDLE;
        void operator()(HANDLE door) const { SetEvent(door); }
    };
    using Doorway = std::unique_ptr<HANDLE, LeaveDoor>;

    void Accept();
    struct Arrival {
        asio::ip::tcp::socket socket;
        asio::ip::tcp::endpoint peer;
        Doorway doorway;
    };
    void HandOver(SOCKET client, const asio::ip::tcp::endpoint& peer, Doorway doorway);
    void LogFailure(int error);

    Bridge& bridge_;
    const SOCKET shared_;
    HANDLE closed_;
    bool acknowledges_ = true;  // the system has the option
    std::atomic<bool> leaving_ = false;
    std::optional<Time> left_;  // since when
    std::optional<Arrival> arrival_;
    HANDLE door_ = CreateEventW(nullptr, FALSE, TRUE, nullptr);
};

}  // namespace kesto::bridge
