// Numeric IPv4 addresses.
#pragma once

#include <cstdint>

namespace kesto {

// Reads a dotted IPv4 address: four decimal numbers from 0 to 255 without leading zeros. `address` is in
// network byte order and is written only on success.
bool ParseIpv4(const char* text, uint32_t& address);

}  // namespace kesto
