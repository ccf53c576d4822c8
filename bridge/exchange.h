// An exchange: a client's request and the way to its answer, and what that needs of the connections on both
// sides. Knows no sockets.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "bridge/fleet.h"
#include "bridge/kept_stream.h"
#include "bridge/metrics.h"
#include "bridge/reply.h"
#include "common/bridge_settings.h"

namespace kesto::bridge {

// The owner of what may throw. An exception ends it, and nothing else.
class Owner {
 public:
    virtual void Failed() = 0;  // called while the exception is handled

 protected:
    ~Owner() = default;
};

template <typename Work>
void Guarded(Owner& owner, Work work) {
    try {
        work();
    } catch (...) {
        owner.Failed();
    }
}

// The client of an exchange. Reply, NoReply and Refuse end the exchange: Stop is called within them.
class Asker : public Owner {
 public:
    virtual void Send(std::string_view text) = 0;
    virtual void Reply(std::string_view text) = 0;
    virtual void NoReply(const std::string& reason) = 0;
    virtual void Refuse(const char* kind, const std::string& reason) = 0;
    virtual void SpaceIsFree() = 0;  // Space was empty, but may have room again
    virtual std::string Name() const = 0;
    virtual std::shared_ptr<Owner> Self() = 0;

 protected:
    ~Asker() = default;
};

// A request on its way to one server.
class Attempt {
 public:
    virtual ~Attempt() = default;
    virtual void More() = 0;            // the request has grown or ended
    virtual void Tick(Time now) = 0;    // to be called every now and then
    virtual void Cancel() = 0;          // closes it; after that it calls nothing
    virtual uint64_t Sent() const = 0;  // bytes
};
using AttemptPtr = std::shared_ptr<Attempt>;

// What an attempt calls, but never while it begins or from within Cancel or More.
struct AttemptEvents {
    std::shared_ptr<Owner> owner;
    std::function<void(bool handed_over)> progressed;  // some bytes, or the last ones, were taken
    std::function<void(const AttemptEnd&)> ended;      // once, at the end
};

// What all exchanges share.
struct Shared {
    BridgeSettings settings;
    Fleet fleet;
    KeepRoom room;
    Metrics metrics;
    bool news = false;  // waiting scans may find a server now
    // Sends the request from its beginning. If no reply has come at this time, the server is silent.
    std::function<AttemptPtr(const ServerPtr& server, const std::shared_ptr<KeptStream>& request,
                             AttemptEvents events, Time reply_until)>
        begin_attempt;
};

class Exchange {
 public:
    virtual ~Exchange() = default;

    // More of the request is to come.
    virtual bool Hears() const { return false; }
    // The memory for its next bytes, and its owner. Empty: none is free.
    virtual std::span<uint8_t> Space(std::shared_ptr<KeptStream>& /*keeper*/) { return {}; }
    // The bytes have been put there.
    virtual void Take(uint8_t* /*bytes*/, size_t /*size*/, Time /*now*/) {}
    // The client has closed its side of the connection after the request.
    virtual void FinishedSending(Time /*now*/) {}

    // Does what has become possible: to be called when it waits and there is news. Tick is to be called now
    // and then. Neither may be called from within a call of the exchange itself.
    virtual void Advance(Time now) = 0;
    virtual void Tick(Time now) = 0;
    // Whether it waits until any server is up.
    virtual bool Waits() const { return false; }
    // The client has its reply or has left: releases everything.
    virtual void Stop() = 0;
};

}  // namespace kesto::bridge
