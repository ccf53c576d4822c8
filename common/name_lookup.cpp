#include "common/name_lookup.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <memory>

namespace kesto {

int LookUpName(const std::string& name, uint16_t port, std::vector<ServerAddress>& addresses) {
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int error = getaddrinfo(name.c_str(), nullptr, &hints, &found);
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, [](addrinfo* at) { freeaddrinfo(at); });
    for (const addrinfo* at = found; at; at = at->ai_next) {
        char text[INET6_ADDRSTRLEN + 1] = "";
        getnameinfo(at->ai_addr, static_cast<socklen_t>(at->ai_addrlen), text, sizeof text, nullptr, 0,
                    NI_NUMERICHOST);
        auto address = ParseHost(text);
        if (address) {
            address->port = port;
            if (std::find(addresses.begin(), addresses.end(), *address) == addresses.end()) {
                addresses.push_back(*address);
            }
        }
    }
    return addresses.empty() ? std::max(error, 1) : 0;
}

}  // namespace kesto
