// Which signatures an engine has, according to its reply to the version command.
#pragma once

#include <chrono>
#include <optional>
#include <string_view>

namespace kesto {

struct Signatures {
    unsigned version;
    std::chrono::sys_seconds written;  // the engine's time zone is taken for UTC
};

// Reads a reply "ENGINE/27000/Fri Nov 20 09:12:31 2026"; returns nothing for any other form.
std::optional<Signatures> ReadSignatures(std::string_view version_reply);

// Whole days between the two dates; negative for signatures from the future.
int AgeInDays(const Signatures& signatures, std::chrono::system_clock::time_point now);

}  // namespace kesto
