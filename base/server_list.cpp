#include "base/server_list.h"

#include <cstdlib>

namespace kesto {
namespace {

std::vector<ServerEntry> g_servers;

ServerEntry ParseServer(std::string_view token) {
    size_t colon = token.find(':');
    if (colon == std::string_view::npos) {
        return {std::string(token), kDefaultPort};
    }
    std::string number(token.substr(colon + 1));
    return {std::string(token.substr(0, colon)), static_cast<uint16_t>(atoi(number.c_str()))};
}

}  // namespace

std::vector<ServerEntry>& Servers() {
    return g_servers;
}

void AppendServers(std::vector<ServerEntry>& servers, std::string_view text) {
    size_t start = 0;
    for (;;) {
        size_t blank = text.find(' ', start);
        servers.push_back(ParseServer(text.substr(start, blank - start)));
        if (blank == std::string_view::npos) {
            break;
        }
        start = blank + 1;
    }
    if (servers.empty()) {
        servers.push_back({"127.0.0.1", kDefaultPort});
    }
}

}  // namespace kesto
