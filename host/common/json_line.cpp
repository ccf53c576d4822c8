#include "host/common/json_line.h"

namespace kesto::host {
namespace {

std::string Dumped(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

std::string JsonLine(const Json& object) {
    std::string line = "{";
    for (const auto& [key, value] : object.items()) {
        line += (line.size() == 1 ? "" : ", ") + Dumped(key) + ": " + Dumped(value);
    }
    return line + "}";
}

}  // namespace kesto::host
