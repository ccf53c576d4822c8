// What a client asked for, while it is answered; and what such an exchange needs of the connections at both
// sides of it. Knows no sockets.
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

// What throws ends its owner, and nothing else.
class Owner {
 public:
    virtual void Failed() noexcept = 0;  // called while the exception is handled

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
    virtual void SpaceIsFree() = 0;  // Space was empty, and may be so no more
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
    virtual void Cancel() = 0;          // closes it, and nothing is called any more
    virtual uint64_t Sent() const = 0;  // bytes
};
using AttemptPtr = std::shared_ptr<Attempt>;

// What an attempt calls, and on whose behalf; nothing from within its beginning, Cancel or More.
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
    bool news = false;  // scans that wait may have found a server
    // Sends the request from its beginning; without a reply at this time it is silent.
    std::function<AttemptPtr(const ServerPtr& server, const std::shared_ptr<KeptStream>& request,
                             AttemptEvents events, Time reply_until)>
        begin_attempt;
};

class Exchange {
 public:
    virtual ~Exchange() = default;

    // More of the request is to come.
    virtual bool Hears() const { return false; }
    // Where the next bytes of it are to be put, and what keeps that memory. Empty: none is free.
    virtual std::span<uint8_t> Space(std::shared_ptr<KeptStream>& /*keeper*/) { return {}; }
    // They are there.
    virtual void Take(uint8_t* /*bytes*/, size_t /*size*/, Time /*now*/) {}
    // The client has closed its side of the connection, behind the request.
    virtual void FinishedSending(Time /*now*/) {}

    // Does what is to be done now: to be called when it waits and there is news. Tick comes every now and
    // then. Neither is to be called from within what the exchange itself calls.
    virtual void Advance(Time now) = 0;
    virtual void Tick(Time now) = 0;
    // It waits for any server.
    virtual bool Waits() const { return false; }
    // The client has its reply, or has gone: lets go of everything.
    virtual void Stop() = 0;
};

}  // namespace kesto::bridge
