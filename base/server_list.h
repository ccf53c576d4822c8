// The engine servers, in the order in which a scan tries them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kesto {

inline constexpr uint16_t kDefaultPort = 3313;

struct ServerEntry {
    std::string host;  // name or address as written; may be empty
    uint16_t port;
};

// Appends one entry for each token of `text` between single blanks, empty tokens included: "host",
// or "host:port" with the port read as atoi does and cut to 16 bits.
void AppendServers(std::vector<ServerEntry>& servers, std::string_view text);

// The process-wide list. Appended to by start-up only, and never emptied: a second start adds its
// servers to those of the first.
std::vector<ServerEntry>& Servers();

}  // namespace kesto
