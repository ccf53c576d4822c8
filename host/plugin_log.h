// What the plug-in wrote to its log: it tells there what its error codes do not.
#pragma once

#include <string>
#include <string_view>

namespace kesto::host {

// The end of the log's last line about an engine's reply that was no verdict, if it stands behind the line of
// this file's scan (its name as it was handed over, and its size): "Unexpected response from KESTOAV - ...".
// Empty when there is none.
std::string LoggedResponse(const std::wstring& log, std::string_view name, uint32_t size);

}  // namespace kesto::host
