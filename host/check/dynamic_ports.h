// The ports that the system gives to outgoing connections. A program that connects to one of them on its own
// machine while nobody listens there may be connected to itself.
#pragma once

#include <optional>
#include <string>

namespace kesto::host {

struct PortRange {
    unsigned first;
    unsigned count;
};

// Reads the output of "netsh interface ipv4 show dynamicport tcp" in any language: its last two numbers
// count.
std::optional<PortRange> PortRangeIn(const std::string& netsh_output);

// None when the system does not tell.
std::optional<PortRange> DynamicPorts();

}  // namespace kesto::host
