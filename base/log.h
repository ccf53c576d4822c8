// The log file. Each message is one line with a time stamp, and is flushed at once.
#pragma once

#include "base/bounded_text.h"

namespace kesto {

// The two lines that the command-line host looks for in the log, since they tell more than an error code
// does. The first is a format for a file's name and its size; the second is followed by the engine's reply.
inline constexpr char kScanLine[] = "Scan file - %.100s - %lu";
inline constexpr char kUnexpectedReplyLine[] = "Unexpected response from KESTOAV - ";

// Finds the path of the log: `logfile`, or, where that is empty, kestoav.log in the plug-in's `folder` if
// that file exists. An administrator turns the log on by creating it. False: there is to be no log.
bool FindLogPath(const char* folder, const char* logfile, char (&path)[kPathSize]);

// Opens `path` for appending and creates it where needed. If that fails, nothing is logged.
void OpenLog(const char* path);

void CloseLog();

// Formats a message, cuts it at kMessageSize - 1 characters, and writes it as one line. Does nothing when no
// log is open. Text from outside must be a value, never the format.
[[gnu::format(__MINGW_PRINTF_FORMAT, 1, 2)]] void LogMessage(const char* format, ...);

}  // namespace kesto
