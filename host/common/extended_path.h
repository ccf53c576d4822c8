#pragma once

#include <string>

namespace kesto {

// The form in which the system takes a path longer than 259 characters.
std::wstring ExtendedPath(const std::wstring& path);

}  // namespace kesto
