// Host names to IPv4 addresses, within a time limit.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kesto {

inline constexpr size_t kMostAddresses = 16;  // further addresses of a name are left out

struct HostAddresses {
    uint32_t addresses[kMostAddresses];  // in network byte order, as the resolver listed them
    size_t count;
};

enum class Resolution { kFound, kTimedOut, kFailed };

// Resolves `host` within `limit_ms`. On kFailed, `error` is the Windows Sockets error. Where the system
// is too old to end a resolution early, it returns later than that, and then with kTimedOut.
Resolution ResolveHost(const char* host, uint32_t limit_ms, HostAddresses& found, int& error);

}  // namespace kesto
