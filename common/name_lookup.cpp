#include "common/name_lookup.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <new>

namespace kesto {
namespace {

void Add(const addrinfo& found, uint16_t port, std::vector<ServerAddress>& addresses) {
    char text[INET6_ADDRSTRLEN + 1] = "";
    getnameinfo(found.ai_addr, static_cast<socklen_t>(found.ai_addrlen), text, sizeof text, nullptr, 0,
                NI_NUMERICHOST);
    auto address = ParseHost(text);
    if (address) {
        address->port = port;
        if (std::find(addresses.begin(), addresses.end(), *address) == addresses.end()) {
            addresses.push_back(*address);
        }
    }
}

}  // namespace

int LookUpName(const std::string& name, uint16_t port, std::vector<ServerAddress>& addresses) noexcept {
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    int error = getaddrinfo(name.c_str(), nullptr, &hints, &found);
    try {
        for (const addrinfo* at = found; at; at = at->ai_next) {
            Add(*at, port, addresses);
        }
    } catch (const std::bad_alloc&) {
        error = ERROR_NOT_ENOUGH_MEMORY;
    }
    if (found) {
        freeaddrinfo(found);
    }
    return addresses.empty() ? std::max(error, 1) : 0;
}

}  // namespace kesto
