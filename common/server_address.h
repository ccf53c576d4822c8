// "host:port" as it is written in settings.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kesto {

enum class HostKind { kIpv4, kIpv6, kName };

struct ServerAddress {
    std::string host;  // without brackets; a name in lower case
    uint16_t port = 0;
    HostKind kind = HostKind::kName;
    std::array<uint8_t, 16> bytes{};  // of an address: 4 or 16 of them, in network order
    bool operator==(const ServerAddress& other) const;
};

// An IPv4 address of four decimal numbers without leading zeros, an IPv6 address in brackets, or a name that
// may be one, each with a port from 1 to 65535. Everything else is refused: what looks like an address but is
// not one could lead to a stranger's machine.
std::optional<ServerAddress> ParseServerAddress(std::string_view text);

// The same without a port, and with an IPv6 address without brackets. The port stays 0.
std::optional<ServerAddress> ParseHost(std::string_view text);

// Whether this is a name or the address of one machine, and not a broadcast, multicast or "any" address.
bool MayBeServer(const ServerAddress& address);

// "host:port", with an IPv6 address in brackets.
std::string AddressText(const ServerAddress& address);

}  // namespace kesto
