// JSON as this program prints it.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace kesto::host {

using Json = nlohmann::ordered_json;  // members stay in the order in which they were added

// An object in one line, with blanks after its colons and commas. Whatever is not UTF-8 is replaced.
std::string JsonLine(const Json& object);

}  // namespace kesto::host
