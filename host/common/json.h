#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Builds one JSON object, member by member. Texts are UTF-8.
namespace kesto {

class JsonObject {
 public:
    JsonObject& Add(std::string_view key, std::string_view text);
    JsonObject& Add(std::string_view key, const char* text) { return Add(key, std::string_view(text)); }
    JsonObject& Add(std::string_view key, uint64_t number);
    JsonObject& Add(std::string_view key, bool truth);
    std::string Text() const { return "{" + members_ + "}"; }

 private:
    JsonObject& AddRaw(std::string_view key, std::string_view value);
    std::string members_;
};

std::string JsonQuoted(std::string_view text);

}  // namespace kesto
