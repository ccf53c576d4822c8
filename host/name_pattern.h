// Patterns of file and folder names.
#pragma once

#include <string_view>

namespace kesto::host {

// Whether all of `name` is what `pattern` says, in any case: * stands for any characters, ? for one.
bool MatchesPattern(std::wstring_view name, std::wstring_view pattern);

}  // namespace kesto::host
