// One connection to one upstream server, for one command and its reply.
#pragma once

#include <asio/awaitable.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <functional>
#include <memory>
#include <string>

#include "bridge/upstreams.h"

namespace kesto {

struct Exchange {
    Exchange(asio::io_context& io, Upstream& to) : server(to), socket(io), limit(io) {}

    Upstream& server;
    asio::ip::tcp::socket socket;
    asio::steady_timer limit;
    std::string reply;             // without its NUL, once whole
    bool whole = false;            // the reply's NUL has arrived
    bool ended = false;            // nothing more will come; the socket is closed
    std::string failure;           // why there is no whole reply
    std::function<void()> on_end;  // called once, when a begun exchange ends
};

// From now on the exchange ends with this failure unless it ends or the limit is lifted before.
void LimitExchange(const std::shared_ptr<Exchange>& exchange, Clock::duration limit, std::string failure);
void LiftLimit(Exchange& exchange);

// Connects. When true is returned the reply is being read, and on_end will be called; false fills failure.
asio::awaitable<bool> BeginExchange(std::shared_ptr<Exchange> exchange, Clock::duration limit);

// Closes the connection, which also ends the reading.
void EndExchange(Exchange& exchange);

}  // namespace kesto
