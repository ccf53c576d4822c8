#include "common/server_address.h"

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#endif

#include <algorithm>
#include <charconv>
#include <cstring>

#include "base/ipv4_address.h"
#include "common/ini_lines.h"

namespace kesto {
namespace {

constexpr size_t kLongestName = 253;
constexpr size_t kLongestLabel = 63;
constexpr std::string_view kMayStandInLabel = "-_abcdefghijklmnopqrstuvwxyz0123456789";

// The system's resolver takes "10.1" and "0x7f000001" for addresses, so a name must not end with a number.
bool MayBeName(std::string_view name) {
    if (name.size() > kLongestName) {
        return false;
    }
    std::string_view label;
    for (size_t begin = 0, dot = 0; dot != std::string_view::npos; begin = dot + 1) {
        dot = name.find('.', begin);
        label = name.substr(begin, dot - begin);
        if (label.empty() || label.size() > kLongestLabel || label.front() == '-' || label.back() == '-' ||
            label.find_first_not_of(kMayStandInLabel) != std::string_view::npos) {
            return false;
        }
    }
    return label.starts_with("0x") ? label.find_first_not_of("0123456789abcdef", 2) != std::string_view::npos
                                   : label.find_first_not_of("0123456789") != std::string_view::npos;
}

bool IsZero(const std::array<uint8_t, 16>& bytes, ptrdiff_t size) {
    return std::all_of(bytes.begin(), bytes.begin() + size, [](uint8_t byte) { return byte == 0; });
}

}  // namespace

bool ServerAddress::operator==(const ServerAddress& other) const {
    return port == other.port && kind == other.kind &&
           (kind == HostKind::kName ? host == other.host : bytes == other.bytes);
}

std::optional<ServerAddress> ParseHost(std::string_view text) {
    ServerAddress address;
    address.host = LowerAscii(text);
    uint32_t ipv4 = 0;
    if (ParseIpv4(address.host.c_str(), ipv4)) {
        address.kind = HostKind::kIpv4;
        std::memcpy(address.bytes.data(), &ipv4, sizeof ipv4);
    } else if (inet_pton(AF_INET6, address.host.c_str(), address.bytes.data()) == 1) {
        address.kind = HostKind::kIpv6;
    } else if (!MayBeName(address.host)) {
        return std::nullopt;
    }
    return address;
}

std::optional<ServerAddress> ParseServerAddress(std::string_view text) {
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view host = text.substr(0, colon);
    const bool brackets = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (brackets) {
        host = host.substr(1, host.size() - 2);
    }
    auto address = ParseHost(host);
    const char* end = text.data() + text.size();
    const char* port = text.data() + colon + 1;
    if (!address || (address->kind == HostKind::kIpv6) != brackets) {
        return std::nullopt;
    }
    const auto [stop, error] = std::from_chars(port, end, address->port);
    if (error != std::errc() || stop != end || address->port == 0) {
        return std::nullopt;
    }
    return address;
}

bool MayBeServer(const ServerAddress& address) {
    const auto& bytes = address.bytes;
    switch (address.kind) {
        case HostKind::kIpv4:
            return bytes[0] != 0 && bytes[0] < 224 && address.host != "127.255.255.255";
        case HostKind::kIpv6:
            // Not ff00::/8, not "::", and not an IPv4 address written as IPv6.
            return bytes[0] != 0xff && (!IsZero(bytes, 10) || (IsZero(bytes, 15) && bytes[15] == 1));
        default:
            return true;
    }
}

std::string AddressText(const ServerAddress& address) {
    const bool brackets = address.kind == HostKind::kIpv6;
    return (brackets ? "[" + address.host + "]" : address.host) + ":" + std::to_string(address.port);
}

}  // namespace kesto
