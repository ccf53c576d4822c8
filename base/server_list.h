// The engine servers, in the order in which a scan tries them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kesto {

inline constexpr uint16_t kDefaultPort = 3313;

struct ServerEntry {
    const char* host;  // name or address as written; may be empty. Owned by the list.
    uint16_t port;
};

class ServerList {
 public:
    ServerList() = default;
    ~ServerList();
    ServerList(const ServerList&) = delete;
    ServerList& operator=(const ServerList&) = delete;

    // Appends one entry for each token of `text` between single blanks, empty tokens included: "host",
    // or "host:port" with the port read as atoi does and cut to 16 bits. Returns false when memory runs
    // out: the list then ends with the last entry that could be made.
    bool Append(std::string_view text);

    bool empty() const { return count_ == 0; }
    const ServerEntry* begin() const { return entries_; }
    const ServerEntry* end() const { return entries_ + count_; }

 private:
    bool Add(std::string_view token);

    ServerEntry* entries_ = nullptr;
    size_t count_ = 0;
};

// The list of this process. Only start-up adds to it, and nothing empties it: a second start adds its
// servers to those of the first.
ServerList& Servers();

}  // namespace kesto
