// What all connections share. One thread runs all of it; only names are looked up beside it.
#pragma once

#include <asio/io_context.hpp>
#include <memory>
#include <set>
#include <vector>

#include "bridge/fleet.h"
#include "bridge/kept_stream.h"
#include "bridge/metrics.h"
#include "bridge/task.h"
#include "common/bridge_settings.h"

namespace kesto::bridge {

class Attempt;
class Client;

struct Bridge {
    asio::io_context io{1};
    BridgeSettings settings;
    std::vector<ServerAddress> own;  // addresses of this machine
    Fleet fleet;
    KeepRoom room;
    Metrics metrics;
    std::set<std::shared_ptr<Client>> clients;
    std::set<std::shared_ptr<Attempt>> attempts;
    Gate place;            // opened when a client has gone
    bool crowded = false;  // one waits for a place
    bool stopping = false;
    Time stopped_at{};  // when stopping was asked for
};

// The settings have changed, or have just been read.
inline void Apply(Bridge& bridge, Time now) {
    bridge.room.limit = static_cast<size_t>(bridge.settings.keep) << 20;
    SetServers(bridge.fleet, bridge.settings.upstreams, now);
}

}  // namespace kesto::bridge
