// What all connections share. One thread runs all of it; clients are accepted, orders are read and names are
// looked up beside it.
#pragma once

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "bridge/fleet.h"
#include "bridge/kept_stream.h"
#include "bridge/metrics.h"
#include "bridge/sleeper.h"
#include "common/bridge_settings.h"

namespace kesto::bridge {

class Client;

struct Bridge {
    Bridge();

    asio::io_context io{1};
    asio::executor_work_guard<asio::io_context::executor_type> work{io.get_executor()};  // till it is stopped
    BridgeSettings settings;
    std::vector<ServerAddress> own;  // addresses of this machine
    Fleet fleet;
    KeepRoom room;
    Metrics metrics;
    Sleeper::Woken woken;
    std::map<uint64_t, std::shared_ptr<Client>> clients;  // by their numbers, in the order in which they came
    uint64_t arrived = 0;                                 // clients so far
    size_t scans = 0;                                     // under way
    std::list<std::shared_ptr<Client>> queue;  // have asked for a scan, for which there is no place
    std::optional<Time> stopping;              // since when it has been
};

// The settings have changed, or have just been read.
void Apply(Bridge& bridge, Time now);

// As many scans are under way as the settings allow.
bool IsFull(const Bridge& bridge);

// The client with this number has gone.
void Remove(Bridge& bridge, uint64_t number);

// No client is let in any more: runs to the end of those that have asked something.
void Stop(Bridge& bridge, Time now);

// To be called when a handler has ended: whoever was woken goes on, and scans that waited for a place.
void GoOn(Bridge& bridge, Time now);
// Every now and then: time limits, and scans that wait for a server.
void Tick(Bridge& bridge, Time now);

// Of the exception that is handled; leaves out what there is no memory for.
void LogException() noexcept;

std::string StatsText(const Bridge& bridge, Time now);

}  // namespace kesto::bridge
