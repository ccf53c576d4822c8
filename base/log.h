// The log file: one time-stamped line a message, flushed at once.
#pragma once

#include "base/bounded_text.h"

namespace kesto {

// Of the lines that are written, those that the command-line host looks for: they tell what an error code
// does not. The format takes a file's name and its size; the reply follows the other.
inline constexpr char kScanLine[] = "Scan file - %.100s - %lu";
inline constexpr char kUnexpectedReplyLine[] = "Unexpected response from KESTOAV - ";

// Which file is the log: `logfile`, or, where that is empty, kestoav.log in the plug-in's `folder`, and only
// if it exists: an administrator turns the log on by creating it. False: there is none.
bool FindLogPath(const char* folder, const char* logfile, char (&path)[kPathSize]);

// Opens `path` to append, creating it. What cannot be opened is not logged to.
void OpenLog(const char* path);

void CloseLog();

// Formats a message, cut at kMessageSize - 1 characters, and writes it as one line; nothing when no log
// is open. Text from elsewhere is a value, never the format.
[[gnu::format(__MINGW_PRINTF_FORMAT, 1, 2)]] void LogMessage(const char* format, ...);

}  // namespace kesto
