// Putting away what was found.
#pragma once

#include <string>

namespace kesto::host {

// Moves or copies the file into the folder, under its own name, or with .001, .002 ... behind it where that
// is taken: nothing is ever overwritten. Returns the system's error code, and in `where` the new path; empty
// for a file that lies in that folder already.
unsigned long PutAway(const std::wstring& exact_path, const std::wstring& folder, bool move,
                      std::wstring& where);

}  // namespace kesto::host
