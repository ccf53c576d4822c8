// The longest folder of the plug-in: a program of ours below it must have a path that Windows can start.
#pragma once

#include <cstddef>

namespace kesto {

// Windows takes 259 characters, and this is the longest path of all that lies in the folder.
inline constexpr size_t kLongestPluginFolder = 259 - (sizeof("\\plugins\\kestoav\\kestobridge.exe") - 1);

}  // namespace kesto
