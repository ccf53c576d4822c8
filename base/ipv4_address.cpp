#include "base/ipv4_address.h"

#include <cstring>

namespace kesto {

bool ParseIpv4(const char* text, uint32_t& address) {
    uint8_t bytes[4];
    for (int i = 0; i < 4; ++i) {
        if (i > 0 && *text++ != '.') {
            return false;
        }
        const char* first = text;
        unsigned value = 0;
        while (*text >= '0' && *text <= '9' && text - first < 3) {
            value = value * 10 + static_cast<unsigned>(*text++ - '0');
        }
        if (text == first || value > 255 || (*first == '0' && text - first > 1)) {
            return false;
        }
        bytes[i] = static_cast<uint8_t>(value);
    }
    if (*text != '\0') {
        return false;
    }
    std::memcpy(&address, bytes, sizeof bytes);
    return true;
}

}  // namespace kesto
