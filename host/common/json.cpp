#include "host/common/json.h"

#include <cstdio>

namespace kesto {

std::string JsonQuoted(std::string_view text) {
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
            quoted += escape;
        } else {
            quoted += c;
        }
    }
    return quoted + '"';
}

JsonObject& JsonObject::AddRaw(std::string_view key, std::string_view value) {
    if (!members_.empty()) {
        members_ += ", ";
    }
    members_ += JsonQuoted(key);
    members_ += ": ";
    members_ += value;
    return *this;
}

JsonObject& JsonObject::Add(std::string_view key, std::string_view text) {
    return AddRaw(key, JsonQuoted(text));
}

JsonObject& JsonObject::Add(std::string_view key, uint64_t number) {
    return AddRaw(key, std::to_string(number));
}

JsonObject& JsonObject::Add(std::string_view key, bool truth) {
    return AddRaw(key, truth ? "true" : "false");
}

}  // namespace kesto
