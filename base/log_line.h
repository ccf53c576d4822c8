// One line of a log file, as both the plug-in and the bridge write it.
#pragma once

#include <cstdio>

namespace kesto {

// Writes "YEAR/MONTH/DAY HOUR:MINUTE:SECOND: MESSAGE" with the local time, and flushes. Errors are ignored.
void WriteLogLine(FILE* log, const char* message);

}  // namespace kesto
