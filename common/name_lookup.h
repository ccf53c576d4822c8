// Names to addresses, by the system's resolver.
#pragma once

#include <string>
#include <vector>

#include "common/server_address.h"

namespace kesto {

// Adds the numeric addresses of a name, each once and with this port. Returns the system's error code, also
// for a lack of memory; 0 with any address. Nothing can end a lookup that hangs.
int LookUpName(const std::string& name, uint16_t port, std::vector<ServerAddress>& addresses) noexcept;

}  // namespace kesto
