// "host:port" as settings name it.
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
    std::array<uint8_t, 16> bytes{};  // of an address, in network order: 4 or 16 of them
    bool operator==(const ServerAddress& other) const;
};

// An IPv4 address of four decimal numbers without leading zeros, an IPv6 address in brackets, or a name that
// may be one, each with a port from 1 to 65535. Nothing for anything else: what looks like an address and is
// none could reach a stranger's machine.
std::optional<ServerAddress> ParseServerAddress(std::string_view text);

// The same without a port, an IPv6 address without brackets. The port is left at 0.
std::optional<ServerAddress> ParseHost(std::string_view text);

// One machine's address or a name: neither "any address", nor a broadcast or multicast one.
bool MayBeServer(const ServerAddress& address);

// "host:port", an IPv6 address in brackets.
std::string AddressText(const ServerAddress& address);

}  // namespace kesto
