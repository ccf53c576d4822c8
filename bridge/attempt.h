// An attempt over a socket: sends a request while it is still coming in, and reads one reply.
#pragma once

#include <asio/io_context.hpp>

#include "bridge/exchange.h"

namespace kesto::bridge {

AttemptPtr BeginAttempt(asio::io_context& io, const Shared& shared, const ServerPtr& server,
                        const std::shared_ptr<KeptStream>& request, AttemptEvents events, Time reply_until);

}  // namespace kesto::bridge
