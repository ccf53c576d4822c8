#include "base/server_list.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace kesto {
namespace {

ServerList g_servers;

}  // namespace

ServerList& Servers() {
    return g_servers;
}

ServerList::~ServerList() {
    for (const ServerEntry& each : *this) {
        free(const_cast<char*>(each.host));
    }
    free(entries_);
}

bool ServerList::Append(std::string_view text) {
    const char* token = text.data();
    const char* const end = token + text.size();
    for (;;) {
        const char* const token_end = std::find(token, end, ' ');
        if (!Add({token, static_cast<size_t>(token_end - token)})) {
            return false;
        }
        if (token_end == end) {
            break;
        }
        token = token_end + 1;
    }
    return !empty() || Add("127.0.0.1");
}

bool ServerList::Add(std::string_view token) {
    auto* const entries = static_cast<ServerEntry*>(realloc(entries_, (count_ + 1) * sizeof(ServerEntry)));
    if (entries == nullptr) {
        return false;
    }
    entries_ = entries;
    auto* const host = static_cast<char*>(malloc(token.size() + 1));
    if (host == nullptr) {
        return false;
    }
    *std::copy(token.begin(), token.end(), host) = '\0';
    uint16_t port = kDefaultPort;
    if (char* const colon = strchr(host, ':')) {
        *colon = '\0';
        port = static_cast<uint16_t>(atoi(colon + 1));
    }
    entries_[count_++] = {host, port};
    return true;
}

}  // namespace kesto
