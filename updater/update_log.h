// The updater's log file: what came of each update, in lines like the plug-in's.
#pragma once

#include <string>

namespace kesto::updater {

// Lines go to this file from now on.
void UseUpdateLog(const std::wstring& path);

// Writes one line, at most 999 characters of it. What came from elsewhere may be part of it: control
// characters are replaced.
void LogUpdate(std::string line);

}  // namespace kesto::updater
