#include "plugin/log.h"

#include <io.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "plugin/plugin_folder.h"

namespace kesto {

static FILE* g_log;

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

    time_t now = time(nullptr);
    tm local = {};
    if (const tm* found = localtime(&now)) {  // the C runtime keeps one result a thread
        local = *found;
    }
    fprintf(g_log, "%d/%d/%d %d:%02d:%02d: %s\n", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
            local.tm_hour, local.tm_min, local.tm_sec, message);
    fflush(g_log);
}

}  // namespace kesto
