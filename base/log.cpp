#include "base/log.h"

#include <io.h>

#include <cstdarg>
#include <cstdio>

#include "base/log_line.h"
#include "base/plugin_folder.h"

namespace kesto {
namespace {

FILE* g_log;

}  // namespace

void OpenLog(const char* path) {
    char default_path[kPathSize];
    if (path[0] == '\0') {
        FormatText(default_path, sizeof default_path, "%s\\kestoav.log", PluginFolder());
        if (_access(default_path, 0) != 0) {
            return;
        }
        path = default_path;
    }
    // A second start opens the log again and does not close the first handle: that is meant.
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
