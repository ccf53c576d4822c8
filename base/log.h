// The log file: one time-stamped line a message, flushed at once.
#pragma once

#include "base/bounded_text.h"

namespace kesto {

// Opens `path` to append, creating it; for an empty `path`, kestoav.log in the plug-in folder, and only
// if it exists: an administrator turns the log on by creating it. What cannot be opened is not logged to.
void OpenLog(const char* path);

void CloseLog();

// Formats a message, cut at kMessageSize - 1 characters, and writes it as one line; nothing when no log
// is open. Text from elsewhere is a value, never the format.
[[gnu::format(__MINGW_PRINTF_FORMAT, 1, 2)]] void LogMessage(const char* format, ...);

}  // namespace kesto
