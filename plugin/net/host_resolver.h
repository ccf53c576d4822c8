// Host names to IPv4 addresses, within a time limit.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kesto {

inline constexpr size_t kMostAddresses = 16;  // any further addresses of a name are left out

struct HostAddresses {
    uint32_t addresses[kMostAddresses];  // in network byte order, as the resolver listed them
    size_t count;
};

inline constexpr int kLookupTimedOut = -1;

// Looks `host` up within `limit_ms`. Returns 0, kLookupTimedOut or the Windows Sockets error. Where the
// system is too old to cancel a lookup, this may return later than that, and then returns kLookupTimedOut.
int ResolveHost(const char* host, uint32_t limit_ms, HostAddresses& found);

}  // namespace kesto
