#include "base/log.h"

#include <windows.h>
#include <io.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "base/log_stamp.h"

namespace kesto {
namespace {

std::atomic<FILE*> g_log;

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
    // A second start opens the log again. The first file stays open, since another thread may be writing to
    // it.
    FILE* const log = fopen(path, "at");
    if (log != nullptr) {
        // A program that the host starts would otherwise hold the file open for as long as it runs.
        SetHandleInformation(reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(log))), HANDLE_FLAG_INHERIT, 0);
    }
    g_log = log;
}

void CloseLog() {
    if (FILE* const log = g_log.exchange(nullptr)) {
        fclose(log);
    }
}

void LogMessage(const char* format, ...) {
    FILE* const log = g_log;  // read once: another thread may be closing it
    if (log == nullptr) {
        return;
    }
    char message[kMessageSize];
    va_list values;
    va_start(values, format);
    vsnprintf(message, sizeof message, format, values);
    va_end(values);
    fprintf(log, "%s%s\n", LogStampNow().text, message);
    fflush(log);
}

}  // namespace kesto
