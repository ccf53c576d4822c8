// The version of our programs.
#pragma once

#include <string>

namespace kesto {

// Such as "1.0.4", according to the program's version resource; empty for any other file.
std::wstring OurVersion(const std::wstring& program);

}  // namespace kesto
