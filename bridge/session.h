// One client connection: its command, the relaying of a scan, the reply.
#pragma once

#include <asio/awaitable.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <set>

#include "bridge/bridge_settings.h"
#include "bridge/metrics.h"

namespace kesto {

// What all connections share. One thread runs it all.
struct Bridge {
    asio::io_context io{1};
    BridgeSettings settings;
    Metrics metrics;
    std::set<asio::ip::tcp::socket*> awaiting_command;  // closed at once when the bridge is to end
    bool stopping = false;
};

// Serves one client to its end. Whatever goes wrong ends this connection only; no reply is ever made up.
asio::awaitable<void> ServeClient(Bridge& bridge, asio::ip::tcp::socket client);

}  // namespace kesto
