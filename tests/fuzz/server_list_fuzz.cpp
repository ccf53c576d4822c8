#include <algorithm>
#include <cstdint>
#include <string>

#include "base/server_list.h"

// One entry more than there are blanks, and every host is the text before its token's first colon.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(data, std::find(data, data + size, 0));
    kesto::ServerList servers;
    if (!servers.Append(text))
        __builtin_trap();
    if (servers.end() - servers.begin() !=
        static_cast<ptrdiff_t>(std::count(text.begin(), text.end(), ' ')) + 1)
        __builtin_trap();
    size_t start = 0;
    for (const kesto::ServerEntry& each : servers) {
        const size_t end = std::min(text.find(' ', start), text.size());
        const size_t colon = std::min(text.find(':', start), end);
        if (each.host != text.substr(start, colon - start))
            __builtin_trap();
        if (colon == end && each.port != kesto::kDefaultPort)
            __builtin_trap();
        start = end + 1;
    }
    return 0;
}
