// Lets clients in, as many at a time as the settings allow.
#pragma once

#include <asio/ip/tcp.hpp>

#include "bridge/bridge.h"

namespace kesto::bridge {

// Nobody else may take the port as well while we listen on it. Where it is in use, as it may be for a moment
// after a restart, tries again for ten seconds.
asio::error_code Listen(asio::ip::tcp::acceptor& acceptor, const ServerAddress& where);

// Lets clients in until the acceptor is closed. `bridge.crowded` tells that one waits for a place.
Task LetIn(Bridge& bridge, asio::ip::tcp::acceptor& acceptor);

}  // namespace kesto::bridge
