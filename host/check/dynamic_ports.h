// The ports that the system gives to outgoing connections. A program that connects to one of them on its own
// machine while nobody listens there can be connected to itself.
#pragma once

#include <optional>
#include <string_view>

namespace kesto::host {

struct PortRange {
    unsigned first;
    unsigned count;
};

// What "netsh interface ipv4 show dynamicport tcp" says in any language: its last two numbers.
std::optional<PortRange> PortRangeIn(std::string_view netsh_output);

// None when the system does not tell.
std::optional<PortRange> DynamicPorts();

}  // namespace kesto::host
