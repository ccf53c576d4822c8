// The updater's log file: the result of each update, in lines like the plug-in's.
#pragma once

#include <string>

namespace kesto::updater {

// From now on lines are written to this file.
void UseUpdateLog(const std::wstring& path);

// Writes one line, of at most 999 characters. It may hold text from outside: control characters are replaced.
void LogUpdate(std::string line);

}  // namespace kesto::updater
