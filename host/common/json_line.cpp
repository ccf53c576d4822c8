#include "host/common/json_line.h"

namespace kesto::host {

std::string JsonLine(const Json& object) {
    const auto dumped = [](const Json& value) {
        return value.dump(-1, ' ', false, Json::error_handler_t::replace);
    };
    std::string line = "{";
    for (const auto& [key, value] : object.items()) {
        line += (line.size() == 1 ? "" : ", ") + dumped(key) + ": " + dumped(value);
    }
    return line + "}";
}

}  // namespace kesto::host
