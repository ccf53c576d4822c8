#include "base/log.h"

#include <io.h>

#include <cstdarg>
#include <cstdio>

#include "base/log_line.h"

namespace kesto {
namespace {

FILE* g_log;

}  // namespace

bool FindLogPath(const char* folder, const char* logfile, char (&path)[kPathSize]) {
    if (logfile[0] != '\0') {
        CopyText(path, sizeof path, logfile);
        return true;
    }
    FormatText(path, sizeof path, "%s\\kestoav.log", folder);
    return _access(path, 0) == 0;
}

void OpenLog(const char* path) {
    // A second start opens the log again. The first handle stays open, since another thread may be writing.
    g_log = fopen(path, "at");
}

void CloseLog() {
    if (g_log != nullptr) {
        fclose(g_log);
        g_log = nullptr;
    }
}

void LogMessage(const char* format, ...) {
    if (g_log == nullptr) {
        return;
    }
    char message[kMessageSize];
    va_list values;
    va_start(values, format);
    vsnprintf(message, sizeof message, format, values);
    va_end(values);
    WriteLogLine(g_log, message);
}

}  // namespace kesto
