// One question to an engine server, directly and not through the plug-in.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kesto {

using Deadline = std::chrono::steady_clock::time_point;

// How a failure to connect begins when it was the name's.
inline const std::string kNameFailure = "the name does not resolve: ";

struct Endpoint {
    std::string host;  // a name, or an IPv4 or IPv6 address without brackets; in the ANSI code page
    uint16_t port;
};

struct ServerAnswer {
    std::optional<std::string> reply;  // whole, without its NUL
    std::string failure;               // where there is none: why, one line (UTF-8)
    bool connected = false;
    double seconds = 0;  // from the start of connecting to the end
};

// Each of these ends by the deadline, and when nothing came for as long as the plug-in waits. The lookup of a
// name is the exception: nothing can end it.

// Connects and says nothing; the reply is then empty.
ServerAnswer ConnectToServer(const Endpoint& server, Deadline deadline);

// Sends a command, which holds its NUL.
ServerAnswer AskServer(const Endpoint& server, std::string_view command, Deadline deadline);

// Has the bytes scanned, each shifted down by one with `shifted`, as the plug-in does with encrypt=1. Unlike
// the plug-in, takes a reply that comes before all of them are sent.
ServerAnswer ScanAtServer(const Endpoint& server, std::string_view bytes, bool shifted, Deadline deadline);

// "10 ms" or "2.3 s".
std::string DurationText(double seconds);

}  // namespace kesto
