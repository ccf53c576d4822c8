#include "bridge/settings/server_address.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "net/ipv4_address.h"

namespace kesto {
namespace {

constexpr size_t kLongestName = 253;
constexpr size_t kLongestLabel = 63;

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

char Lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool MayStandInLabel(char c) {
    return IsDigit(c) || (c >= 'a' && c <= 'z') || c == '-' || c == '_';
}

// Cuts the part up to the next separator off the text. False when there was no separator: the part is the
// rest, and the text empty.
bool Cut(std::string_view& text, char separator, std::string_view& part) {
    const size_t at = text.find(separator);
    part = text.substr(0, at);
    text.remove_prefix(at == std::string_view::npos ? text.size() : at + 1);
    return at != std::string_view::npos;
}

// The system's resolver takes "10.1" and "0x7f000001" for addresses: a name must not end in a number.
bool MayBeName(std::string_view name) {
    if (name.size() > kLongestName) {
        return false;
    }
    std::string_view label;
    for (bool more = true; more;) {
        more = Cut(name, '.', label);
        if (label.empty() || label.size() > kLongestLabel || label.front() == '-' || label.back() == '-' ||
            !std::all_of(label.begin(), label.end(), MayStandInLabel)) {
            return false;
        }
    }
    if (label.starts_with("0x")) {
        return label.find_first_not_of("0123456789abcdef", 2) != std::string_view::npos;
    }
    return !std::all_of(label.begin(), label.end(), IsDigit);
}

// Groups of 16 bits between colons, as many as there are. False when one of them is none.
bool Groups(std::string_view text, std::array<uint8_t, 16>& bytes, size_t& size) {
    std::string_view group;
    size = 0;
    for (bool more = !text.empty(); more;) {
        more = Cut(text, ':', group);
        unsigned value = 0;
        const char* end = group.data() + group.size();
        const auto [stop, error] = std::from_chars(group.data(), end, value, 16);
        if (error != std::errc() || stop != end || group.size() > 4 || size == bytes.size()) {
            return false;
        }
        bytes[size++] = static_cast<uint8_t>(value >> 8);
        bytes[size++] = static_cast<uint8_t>(value);
    }
    return true;
}

bool ParseIpv6(std::string_view text, std::array<uint8_t, 16>& bytes) {
    const size_t gap = text.find("::");
    size_t front = 0, back = 0;
    if (gap == std::string_view::npos) {
        return Groups(text, bytes, front) && front == bytes.size();
    }
    std::array<uint8_t, 16> behind{};
    if (!Groups(text.substr(0, gap), bytes, front) || !Groups(text.substr(gap + 2), behind, back) ||
        front + back >= bytes.size()) {
        return false;
    }
    std::copy_n(behind.begin(), back, bytes.end() - static_cast<ptrdiff_t>(back));
    return true;
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
    address.host.resize(text.size());
    std::transform(text.begin(), text.end(), address.host.begin(), Lower);
    uint32_t ipv4 = 0;
    if (ParseIpv4(address.host.c_str(), ipv4)) {
        address.kind = HostKind::kIpv4;
        std::memcpy(address.bytes.data(), &ipv4, sizeof ipv4);
    } else if (ParseIpv6(address.host, address.bytes)) {
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
            // Neither ff00::/8, nor "::", nor an IPv4 address in IPv6's clothes.
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
