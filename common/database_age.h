// How old an engine's signatures are, by its reply to the version command.
#pragma once

#include <chrono>
#include <optional>
#include <string_view>

namespace kesto {

// The days between the date in a reply "ENGINE/DATABASE/Fri Nov 20 09:12:31 2026" and `now`, rounded
// down; negative for a date to come. The engine's time zone is taken for ours. None for any other form.
std::optional<int> DatabaseAgeDays(std::string_view version_reply, std::chrono::sys_days now);

}  // namespace kesto
