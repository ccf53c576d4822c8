// Reads the plug-in's log, which tells more than its error codes.
#pragma once

#include <cstdint>
#include <string>

namespace kesto::host {

// The end of the log's last line about a reply that was not a verdict ("Unexpected response from KESTOAV -
// ..."), if it follows the line of this file's scan, with its name as the plug-in was given it, and its size.
// Otherwise empty.
std::string LoggedResponse(const std::wstring& log, const std::string& name, uint32_t size);

}  // namespace kesto::host
