// Patterns of file and folder names.
#pragma once

#include <string_view>

namespace kesto::host {

// Whether `pattern` matches the whole of `name`: * matches any characters, ? one. Case does not matter.
bool MatchesPattern(std::wstring_view name, std::wstring_view pattern);

}  // namespace kesto::host
