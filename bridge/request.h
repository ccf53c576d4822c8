// What a client asks for. Its client calls it; it calls nobody but its attempts.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "bridge/clock.h"
#include "bridge/kept_stream.h"
#include "bridge/reply.h"

namespace kesto::bridge {

// Its end, for whatever reason, releases everything.
class Request {
 public:
    virtual ~Request() = default;

    // More of it is to come.
    virtual bool Hears() const { return false; }
    // The memory for its next bytes, and its owner. Empty: none is free.
    virtual std::span<uint8_t> Space(std::shared_ptr<KeptStream>& /*keeper*/) { return {}; }
    // The bytes have been put there. False: they cannot be followed.
    virtual bool Take(uint8_t* /*bytes*/, size_t /*size*/, Time /*now*/) { return true; }
    // The client has closed its side of the connection after the request.
    virtual void FinishedSending(Time /*now*/) {}

    // Does what has become possible; to be called again until nothing goes to the client.
    virtual Answer Advance(Time now) = 0;
    // Whether it waits until any server is up.
    virtual bool Waits() const { return false; }
};

}  // namespace kesto::bridge
