// An attempt over a socket: a request goes out while it comes in, one reply comes back.
#pragma once

#include <asio/io_context.hpp>

#include "bridge/exchange.h"

namespace kesto::bridge {

AttemptPtr BeginAttempt(asio::io_context& io, const Shared& shared, const ServerPtr& server,
                        const std::shared_ptr<KeptStream>& request, AttemptEvents events, Time reply_until);

}  // namespace kesto::bridge
